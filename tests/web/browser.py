# SPDX-License-Identifier: ISC
"""A real browser with the update page in it."""
import base64
import os

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By

from simulated_router import PROJECT, WAIT, wait_until

PICTURES = PROJECT / "docs/pictures"

# A clock that a test can put forward; timers keep their pace.
CLOCK = """
    const real = Date.now;
    window.putForward = 0;
    Date.now = () => real() + window.putForward;
"""


def start_browser():
    options = Options()
    options.binary_location = "/usr/bin/chromium"
    for flag in ("--headless=new", "--disable-dev-shm-usage", "--window-size=600,900", "--hide-scrollbars",
                 "--no-first-run", "--disable-background-networking", "--disable-component-update",
                 "--font-render-hinting=none", "--force-device-scale-factor=1"):
        options.add_argument(flag)
    if os.getuid() == 0:
        options.add_argument("--no-sandbox")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_script_timeout(WAIT)
    return driver


def await_half(router, page):
    page.await_text("figures", "25%")
    router.send_half()
    page.await_text("figures", "50%")


class Page:
    """The update page in one tab. Elements go by their ids."""

    def __init__(self, driver, address):
        self.driver = driver
        self.address = address
        self.tab = driver.current_window_handle

    def open(self):
        self.driver.get(self.address)

    def look(self):
        """Brings its tab to the front."""
        self.driver.switch_to.window(self.tab)

    def second_tab(self):
        self.driver.switch_to.new_window("tab")
        other = Page(self.driver, self.address)
        other.open()
        return other

    def find(self, name):
        return self.driver.find_element(By.ID, name)

    def click(self, name):
        wait_until(lambda: self.visible(name) and self.find(name).is_enabled(), f"{name} can be clicked")
        self.find(name).click()

    def type(self, name, text):
        self.find(name).clear()
        self.find(name).send_keys(text)

    def script(self, code, *args):
        return self.driver.execute_script(code, *args)

    def text(self, name):
        """What is visible of it. The page may be loaded anew at any time, hence by one script."""
        return self.script("const one = document.getElementById(arguments[0]); return one && one.checkVisibility() ? one.innerText.trim() : ''", name)

    def visible(self, name):
        return self.script("return document.getElementById(arguments[0]).checkVisibility()", name)

    def await_text(self, name, wanted):
        """A page that looks every few seconds is asked to look at once."""
        def is_there():
            if wanted in self.text(name):
                return True
            self.look_now()
            return False
        wait_until(is_there, lambda: f"{name} says '{wanted}', not '{self.text(name)}'", pause=0.2)

    def await_visible(self, name):
        wait_until(lambda: self.visible(name), f"{name} is visible")

    def await_hidden(self, name):
        wait_until(lambda: not self.visible(name), f"{name} is hidden")

    def sign_in(self, user="root", password="router"):
        self.await_visible("user")
        self.type("user", user)
        self.type("password", password)
        self.find("password").submit()

    def open_and_sign_in(self, user="root", password="router"):
        self.open()
        self.sign_in(user, password)
        self.await_visible("versions")
        wait_until(lambda: self.text("verdict") and "…" not in self.text("verdict"), "a check has ended")

    def check_until(self, verdict):
        """On a busy machine a check may take longer than a short limit of the gateway: then once more."""
        def is_said():
            if verdict in self.text("verdict"):
                return True
            if "in time" in self.text("verdict"):
                self.script("document.getElementById('check').click()")
            return False
        wait_until(is_said, lambda: f"the verdict is '{verdict}', not '{self.text('verdict')}'")

    def look_now(self):
        """The page asks the router without waiting for its next turn."""
        self.script("document.dispatchEvent(new Event('visibilitychange'))")

    def start_update(self, button="update"):
        self.click(button)
        self.click("yes")

    def await_stage(self, title):
        self.await_text("job-title", title)

    def session(self):
        return self.script("return JSON.parse(sessionStorage.getItem('fwupdate.session'))")

    def set_width(self, width):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": 800, "deviceScaleFactor": 1, "mobile": False})

    def set_dark(self, dark):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}]})

    def put_clock_forward(self, minutes):
        self.script("window.putForward += arguments[0] * 60000", minutes)

    def picture(self, name):
        """A picture of the whole page for the documents; written only when asked for."""
        height = self.script("return Math.ceil(document.querySelector('main').getBoundingClientRect().bottom) + 8")
        if self.visible("question"):
            height = max(height, 620)
        width = self.script("return innerWidth")
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
        shot = self.driver.execute_cdp_cmd("Page.captureScreenshot", {"format": "png"})
        self.driver.execute_cdp_cmd("Emulation.clearDeviceMetricsOverride", {})
        png = base64.b64decode(shot["data"])
        assert png.startswith(b"\x89PNG")
        if os.environ.get("FWUPDATE_PICTURES"):
            PICTURES.mkdir(exist_ok=True)
            (PICTURES / f"web-{name}.png").write_bytes(png)

    def everything(self):
        return self.script("return location.href + '\\n' + document.body.innerText")

    def complaints(self):
        """What the browser logged as an error, but for requests that found no router or a broken one."""
        return [entry["message"] for entry in self.driver.get_log("browser")
                if entry["level"] == "SEVERE" and "net::ERR_" not in entry["message"]
                and "Failed to load resource" not in entry["message"]]
