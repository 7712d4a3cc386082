# SPDX-License-Identifier: ISC
"""Fixtures of the browser tests: one browser for all of them, a router and a tab for each."""
import pathlib
import sys
import tempfile

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parent))
from browser import CLOCK, Page, start_browser  # noqa: E402
from router import Router  # noqa: E402


@pytest.fixture(scope="session")
def driver():
    browser = start_browser()
    browser.execute_cdp_cmd("Page.enable", {})
    yield browser
    browser.quit()


@pytest.fixture
def make_router():
    """A router that is switched on; one that offers nothing newer."""
    routers = []
    with tempfile.TemporaryDirectory(prefix="fw-web-") as folder:

        def make(*options):
            router = Router(pathlib.Path(folder), *options)
            routers.append(router)
            router.make_image()
            router.offer(build="171000000", version="r1234")
            router.power_on()
            return router

        yield make
        for router in routers:
            router.close()


@pytest.fixture
def router(make_router):
    return make_router()


@pytest.fixture
def make_page(driver):
    """A tab with the page of that router. The browser has nothing to complain about at the end."""
    pages = []
    first = driver.current_window_handle

    def make(router, language="en"):
        driver.switch_to.new_window("tab")
        driver.execute_cdp_cmd("Page.addScriptToEvaluateOnNewDocument", {"source": CLOCK})
        agent = driver.execute_script("return navigator.userAgent")
        driver.execute_cdp_cmd("Emulation.setUserAgentOverride", {"userAgent": agent, "acceptLanguage": language})
        pages.append(Page(driver, router.relay.address))
        return pages[-1]

    yield make
    complaints = pages[0].complaints() if pages else []
    for tab in driver.window_handles:
        if tab != first:
            driver.switch_to.window(tab)
            driver.close()
    driver.switch_to.window(first)
    assert not complaints


@pytest.fixture
def page(router, make_page):
    return make_page(router)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """A failed test says what the page showed."""
    report = (yield).get_result()
    page = item.funcargs.get("page")
    if report.when == "call" and report.failed and page:
        report.sections.append(("the page", page.everything()))
