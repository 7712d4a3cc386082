# SPDX-License-Identifier: ISC
"""States of the page that last a moment on a router, or that a router seldom comes to."""
import answers
from router import OLD


def signal_update_server(router, signal):
    router.run(f"""pids=$(pidof nginx) || exit 1
        for pid in $pids; do [ "$pid" -gt 1 ] && kill -{signal} "$pid" || exit 1; done""")


def test_update_server_is_asked_first(router, page):
    """By a daemon that has not checked itself: it was restarted. The server is slow to answer."""
    router.offer_slowly()
    page.open_and_sign_in()
    router.lose_the_daemon()
    router.bring_the_daemon_back()
    signal_update_server(router, "STOP")
    page.start_update()
    page.await_stage("Starting the update")
    assert page.text("job-text") == "Asking the update server …"
    assert not page.visible("close-job")
    signal_update_server(router, "CONT")
    page.await_stage("Downloading")


def test_router_whose_services_are_not_there_yet(router, page):
    """After the restart the web server comes first."""
    router.offer()
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("Installing")
    router.await_installer()
    router.power_off()
    page.await_stage("Restarting")
    router.relay.fault = lambda name, method, browser: bool(method) and not browser.sendall(answers.error(-32000))
    router.power_on(OLD)
    page.await_text("job-text", "The router answers, but not all of its services are there yet.")
    assert page.text("job-title") == "Restarting"
    for name in ("sign-in", "connection", "read-only"):
        assert not page.visible(name), name
    router.relay.fault = lambda *_: False
    page.await_stage("The router answers again")


def test_offer_that_was_withdrawn_before_the_start(router, page):
    router.offer()
    page.open_and_sign_in()
    router.offer(build=OLD["build"], version=OLD["revision"])
    router.run("ubus call fwupdate check")
    page.start_update()
    page.await_stage("There was nothing to install")
    assert page.text("job-text") == "The update server has no newer version."
    assert not page.visible("job-detail")
    page.await_text("verdict", "This router is up to date")
    assert not page.visible("update"), "the page has asked again"
    page.click("close-job")
    page.await_hidden("job")
