# SPDX-License-Identifier: ISC
"""Dark, and by keyboard alone; the rest is in test_scenes.py."""
from selenium.webdriver.common.keys import Keys

from browser import wait_until


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


def test_dark_where_the_browser_asks_for_it(router, page):
    page.set_dark(True)
    page.open_and_sign_in()
    ground, ink = page.script("""
        const style = getComputedStyle(document.body);
        return [style.backgroundColor, style.color].map((one) => one.match(/\\d+/g).map(Number)[0])""")
    assert ground < 60 < 200 < ink


def test_keyboard_alone_is_enough(router, page):
    router.offer()
    page.open()
    wait_until(lambda: focused(page) == "password", "the user's name is filled in")
    keys(page, "router", Keys.ENTER)
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
