# SPDX-License-Identifier: ISC
"""The main way in another browser than Chromium."""
import shutil

import pytest

from browser import Page
from firefox import Firefox
from router import NEW


@pytest.fixture
def page(router, tmp_path):
    if not shutil.which("firefox-esr"):
        pytest.fail("firefox-esr is not there: './setup.sh --web' installs it")
    browser = Firefox(tmp_path)
    yield Page(browser, router.relay.address)
    browser.quit()


def test_whole_way_in_firefox(router, page):
    router.offer_slowly()
    page.open_and_sign_in()
    assert page.text("verdict") == "A new version is available"
    page.start_update()
    page.await_text("figures", "of 2.0 MiB")
    assert page.script("return document.title") == "25% – Firmware update"
    router.release()
    page.await_stage("Installing")
    router.await_installer()
    router.power_off()
    page.await_stage("Restarting")
    router.power_on(NEW)
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Update complete")
    page.await_text("verdict", "This router is up to date")
    page.click("close-job")
    page.await_hidden("job")
    assert not page.visible("broken")
