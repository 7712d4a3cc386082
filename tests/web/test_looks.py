# SPDX-License-Identifier: ISC
"""Narrow, dark, by keyboard alone, and for those who do not see it."""
import os

import pytest
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from browser import await_half, wait_until
from router import OLD
from simulated_router import PROJECT

AXE = PROJECT / "build/web/node_modules/axe-core/axe.min.js"


def keys(page, *what):
    for key in what:
        page.driver.switch_to.active_element.send_keys(key)


def focused(page):
    return page.script("return document.activeElement.id")


def tab_to(page, name):
    for _ in range(20):
        if focused(page) == name:
            return
        keys(page, Keys.TAB)
    raise AssertionError(f"{name} is not reached by the tabulator")


def states(router, page):
    """Yields in each of the page's states, as far as they differ in what is on it."""
    router.offer_slowly()
    yield from states_before_the_update(router, page)
    yield from states_of_an_update(router, page)
    yield from states_of_a_failed_update(router, page)
    yield from states_of_the_same_build(router, page)


def states_before_the_update(router, page):
    page.open()
    page.sign_in(password="wrong")
    page.await_visible("sign-in-fault")
    yield "sign-in"
    page.open_and_sign_in("viewer", "look")
    yield "read-only"
    router.end_session(page.session()["sid"])
    page.look_now()
    page.await_text("sign-in-why", "Your session has ended.")
    yield "session-ended"
    page.open_and_sign_in()
    page.find("file-part").click()
    page.type("file", "/tmp/none")
    page.click("file-button")
    page.await_text("file-result", "/tmp/none: cannot be read.")
    yield "file-checked"
    page.open()
    page.await_text("verdict", "A new version")
    page.find("file-part").click()
    yield "available"
    page.click("update")
    page.await_visible("question")
    yield "question"
    page.click("no")


def states_of_an_update(router, page):
    page.start_update()
    await_half(router, page)
    yield "downloading"
    router.release()
    page.await_stage("Installing")
    yield "installing"
    page.put_clock_forward(3.1)
    page.await_stage("The router did not restart")
    yield "did-not-restart"
    router.power_off()
    page.await_stage("Restarting")
    page.put_clock_forward(11)
    page.await_visible("job-hint")
    yield "restarting"
    router.power_on()
    page.await_stage("The router answers again")
    yield "answers-again"
    page.sign_in()
    page.await_stage("The router still runs the old version")
    yield "still-old"
    page.click("close-job")


def states_of_a_failed_update(router, page):
    router.offer_slowly()
    page.start_update()
    page.await_stage("Downloading")
    router.lose_the_daemon()
    page.await_stage("The result of the update is unknown")
    yield "lost"
    router.bring_the_daemon_back()
    page.click("close-job")
    finish_verifying = router.verify_slowly()
    router.machine.hold_again()
    page.start_update()
    page.await_stage("Downloading")
    router.release()
    page.await_stage("Verifying")
    yield "verifying"
    finish_verifying()
    page.await_stage("The update failed")
    yield "failed"
    page.click("close-job")


def states_of_the_same_build(router, page):
    router.make_image()
    router.offer(build=OLD["build"], version=OLD["revision"])
    page.click("check")
    page.await_text("verdict", "This router is up to date")
    page.find("anyway-part").click()
    yield "anyway"
    page.start_update("anyway")
    page.await_stage("Installing")
    router.await_installer()
    router.power_off()
    page.await_stage("Restarting")
    router.power_on()
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Update complete")
    yield "done"


def test_narrow_screen_cuts_nothing_off(router, page):
    page.set_width(360)
    for state in states(router, page):
        page.set_width(360)
        assert page.script("return document.documentElement.scrollWidth") <= 360, state
        outside = page.script("""
            return [...document.querySelectorAll("main *")].filter((one) => {
                const box = one.getBoundingClientRect();
                return box.width && (box.right > innerWidth + 1 || box.left < -1);
            }).map((one) => one.id || one.tagName)""")
        assert not outside, state
        if state in ("available", "downloading"):
            page.picture(f"narrow-{state}")


def test_dark_where_the_browser_asks_for_it(router, page):
    page.set_dark(True)
    router.offer_slowly()
    page.open_and_sign_in()
    ground, ink = page.script("""
        const style = getComputedStyle(document.body);
        return [style.backgroundColor, style.color].map((one) => one.match(/\\d+/g).map(Number)[0])""")
    assert ground < 60 < 200 < ink
    page.picture("dark")
    page.start_update()
    await_half(router, page)
    page.picture("dark-downloading")


def test_keyboard_alone_is_enough(router, page):
    router.offer()
    page.open()
    wait_until(lambda: focused(page) == "user", "the form waits for the user's name")
    keys(page, "root", Keys.TAB, "router", Keys.ENTER)
    page.await_text("verdict", "A new version")
    tab_to(page, "update")
    keys(page, Keys.ENTER)
    page.await_visible("question")
    assert focused(page) == "no", "the harmless answer comes first"
    keys(page, Keys.ESCAPE)
    page.await_hidden("question")
    assert focused(page) == "update"
    tab_to(page, "check")
    outline = page.script("return getComputedStyle(document.activeElement).outlineStyle")
    assert outline == "solid", "where the focus is can be seen"
    page.script("document.getElementById('update').focus()")
    keys(page, Keys.ENTER)
    page.await_visible("question")
    tab_to(page, "yes")
    keys(page, Keys.SPACE)
    page.await_stage("Installing")
    assert focused(page) == "job-title"


@pytest.mark.parametrize("dark", [False, True], ids=["light", "dark"])
def test_axe_finds_nothing(router, page, dark):
    if not AXE.exists():
        reason = "axe-core is not there: './setup.sh --web' fetches it with npm"
        assert not os.environ.get("CI"), reason
        pytest.skip(reason)
    page.set_dark(dark)
    for state in states(router, page):
        page.script(AXE.read_text(encoding="utf-8"))
        found = page.driver.execute_async_script("""
            const done = arguments[arguments.length - 1];
            axe.run({ resultTypes: ["violations"] }).then((all) => done(all.violations), (fault) => done([String(fault)]))""")
        assert [(one["id"], [node["html"] for node in one["nodes"]]) if isinstance(one, dict) else one
                for one in found] == [], state


def test_every_input_has_its_label(router, page):
    page.open_and_sign_in()
    page.find("file-part").click()
    names = [element.accessible_name for element in page.driver.find_elements(By.TAG_NAME, "input") if element.is_displayed()]
    assert names == ["Path of the file"]
