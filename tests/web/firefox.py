# SPDX-License-Identifier: ISC
"""Firefox, as far as Page needs a browser. Debian has no geckodriver; Firefox itself speaks Marionette on a
TCP port: a length, a colon, and JSON."""
import json
import os
import pathlib
import socket
import subprocess

from simulated_router import WAIT, wait_until

PREFERENCES = {
    "marionette.port": 0,  # any; Firefox writes it down
    "datareporting.policy.dataSubmissionEnabled": False,
    "app.update.enabled": False,
    "browser.shell.checkDefaultBrowser": False,
    "network.captive-portal-service.enabled": False,
    "network.connectivity-service.enabled": False,
}
ELEMENT = "element-6066-11e4-a52e-4f735466cecf"


class Element:
    def __init__(self, browser, name):
        self.browser = browser
        self.name = name

    def script(self, code, *args):
        return self.browser.execute_script(f"const one = document.getElementById(arguments[0]); {code}", self.name, *args)

    def do(self, command, **parameters):
        found = self.browser.command("WebDriver:FindElement", using="css selector", value=f"#{self.name}")
        return self.browser.command(f"WebDriver:Element{command}", id=found[ELEMENT], **parameters)

    @property
    def text(self):
        return self.script("return one.innerText.trim()")

    def is_enabled(self):
        return self.script("return !one.disabled")

    def clear(self):
        self.do("Clear")

    def click(self):
        self.do("Click")

    def send_keys(self, text):
        self.do("SendKeys", text=text)

    def submit(self):
        self.script("one.form.requestSubmit()")


class Firefox:
    current_window_handle = ""

    def __init__(self, folder, language="en"):
        profile = pathlib.Path(folder)
        preferences = {**PREFERENCES, "intl.accept_languages": language}
        (profile / "user.js").write_text("".join(f"user_pref({json.dumps(k)}, {json.dumps(v)});\n" for k, v in preferences.items()))
        self.program = subprocess.Popen(["firefox-esr", "--headless", "--no-remote", "--marionette", "--profile", profile],
                                        env={**os.environ, "HOME": str(profile)}, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        port = profile / "MarionetteActivePort"
        wait_until(lambda: port.exists() and port.read_text(), "Firefox listens")
        self.connection = socket.create_connection(("127.0.0.1", int(port.read_text())), timeout=WAIT)
        self.number = 0
        self.read()
        self.command("WebDriver:NewSession")

    def read(self):
        size = b""
        while not size.endswith(b":"):
            size += self.connection.recv(1)
        left, text = int(size[:-1]), b""
        while len(text) < left:
            text += self.connection.recv(left - len(text))
        return json.loads(text)

    def command(self, name, **parameters):
        self.number += 1
        text = json.dumps([0, self.number, name, parameters]).encode()
        self.connection.sendall(b"%d:%s" % (len(text), text))
        _, number, error, result = self.read()
        assert number == self.number and not error, error
        return result["value"] if isinstance(result, dict) and "value" in result else result

    def get(self, address):
        self.command("WebDriver:Navigate", url=address)

    def execute_script(self, code, *args):
        return self.command("WebDriver:ExecuteScript", script=code, args=args)

    def find_element(self, _, name):
        return Element(self, name)

    def quit(self):
        self.command("Marionette:Quit", flags=["eForceQuit"])
        self.connection.close()
        self.program.wait(WAIT)
