# SPDX-License-Identifier: ISC
"""Services that are not there, and answers that are no answers."""
import pytest

import answers
from browser import WAIT, wait_until


def test_no_daemon(router, page):
    router.lose_the_daemon()
    page.open()
    page.sign_in()
    page.await_text("verdict", "The update service does not answer.")
    assert page.text("here-version") == "r1234"
    router.bring_the_daemon_back()
    router.offer()
    page.click("check")
    page.await_text("verdict", "A new version")


def test_daemon_that_ended_starts_no_update(router, page):
    router.offer()
    page.open_and_sign_in()
    router.lose_the_daemon()
    page.start_update()
    page.await_text("connection", "Not started. The update service does not answer.")


def test_gateway_that_is_down(router, page):
    """The router went away for another reason than an update."""
    page.open_and_sign_in()
    page.look_now()
    router.power_off()
    page.look_now()
    page.await_text("connection", "The router does not answer. This page keeps trying.")
    router.power_on()
    page.await_visible("sign-in")


def test_signing_in_while_the_router_is_away(router, page):
    page.open()
    router.power_off()
    page.sign_in()
    page.await_text("sign-in-fault", "The router does not answer.")


def test_no_plugin(router, page):
    """As on a router that has the page, but not what stands behind it."""
    missing = answers.instead_of("status", answers.error(-32000))
    router.relay.fault = missing
    router.offer()
    page.open_and_sign_in()
    assert page.text("verdict") == "No updates from here: fwupdate-job is missing on the router."
    assert page.text("here-version") == "r1234"
    assert not page.visible("update") and not page.visible("check")


def test_check_that_takes_longer_than_the_gateway_waits(make_router, make_page):
    router = make_router("--web-limit", "5")
    page = make_page(router)
    page.open_and_sign_in()
    page.check_until("This router is up to date")
    router.machine.stop_daemon()
    page.click("check")
    page.await_text("verdict", "The router did not answer in time.")
    router.machine.continue_daemon()


BROKEN = {
    "nothing": b"",
    "no HTTP": b"\x00\xff garbage\r\n\r\n",
    "no JSON": answers.http(b"<html>Bad Gateway</html>"),
    "cut": answers.http(b'{"jsonrpc":"2.0","id":1,"resu', announced=500),
    "empty": answers.http(b""),
    "an array": answers.http(b"[]"),
    "null": answers.http(b"null"),
    "no result": answers.http(b'{"jsonrpc":"2.0","id":1}'),
    "a text for a result": answers.http(b'{"result":"0"}'),
    "a text for a status": answers.http(b'{"result":["0",{}]}'),
    "an unknown error": answers.error(-1),
    "an error without a code": answers.http(b'{"error":{}}'),
    "a text for an error's code": answers.http(b'{"error":{"code":"toString"}}'),
    "a list for the data": answers.result(b"[1]"),
    "no fields": answers.result(b"{}"),
    "null for the data": answers.result(b"null"),
    "fields of the wrong type": answers.result(
        b'{"version":{"a":1},"buildtime":[],"releasenotes":7,"need_update":true,"error_code":0,'
        b'"update":"x","boot":5,"now":"y","status":"toString","state":[],"progress":3,"release":9,"access":"yes","model":{}}'),
    "an HTTP error": b"HTTP/1.1 502 Bad Gateway\r\nContent-Length: 2\r\n\r\n{}",
    "a redirection": b"HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:9/\r\nContent-Length: 0\r\n\r\n",
    "a bus status": answers.http(b'{"jsonrpc":"2.0","id":1,"result":[9]}'),
}


def test_check_whose_answer_is_none(router, page):
    router.offer()
    page.open_and_sign_in()
    for what, raw in BROKEN.items():
        router.relay.fault = answers.instead_of("check", raw)
        page.click("check")
        wait_until(lambda: page.find("check").is_enabled(), f"{what}: the check has ended")
        assert page.text("verdict") and "newer" not in page.text("verdict"), what
        assert not page.visible("update"), what
        if what == "no JSON":
            assert page.text("verdict") == "This page does not understand the router’s answer."
    assert page.text("verdict") == "The router could not do that (error 9)."
    router.relay.fault = lambda *_: False
    page.click("check")
    page.await_text("verdict", "A new version is available")


def test_start_whose_answer_is_none(router, page):
    """Nothing has started, the router never saw the call; but the page cannot know that."""
    router.offer()
    page.open_and_sign_in()
    for what, raw in BROKEN.items():
        router.relay.fault = answers.instead_of("start", raw)
        page.start_update()
        wait_until(lambda: page.text("connection") == "No clear answer came. If the update has begun, it appears here.",
                   lambda: f"{what}: {page.text('connection')}")
        wait_until(lambda: page.find("update").is_enabled(), f"{what}: it can be tried again")
    router.relay.fault = lambda *_: False
    page.start_update()
    page.await_stage("Installing")


def test_update_whose_start_was_not_answered_is_shown_alone(router, page):
    """The router has started it; only the answer to the start was lost or broken on its way."""
    router.make_image("MODEL-Y")
    router.offer_slowly()
    page.open_and_sign_in()
    for what in ("nothing", "no JSON", "cut", "no fields"):
        raw = BROKEN[what]
        router.machine.hold_again()
        router.relay.replaced = lambda method, raw=raw: raw if method == "start" else None
        page.start_update()
        page.await_stage("Downloading")
        wait_until(lambda: not page.visible("connection"), lambda: f"{what}: {page.text('connection')}")
        router.release()
        page.await_stage("The update failed")
        assert not page.visible("connection"), what
        page.click("close-job")
        page.await_hidden("job")


def test_refused_start_stays_refused(router, page):
    """Another update that appears later does not take back that this one was refused."""
    router.offer_slowly()
    page.open_and_sign_in()
    refusal = answers.result(b'{"status":4,"message":""}')
    router.relay.fault = answers.instead_of("start", refusal)
    page.start_update()
    page.await_text("connection", "Not started. An update is already running.")
    router.run("fwupdate-cli update --yes --detach")
    page.await_stage("Downloading")
    assert page.text("connection") == "Not started. An update is already running."


@pytest.mark.parametrize("method", ["status", "board", "access"])
def test_look_whose_answer_is_none(router, page, method):
    """The page says so or shows what it can, and goes on as soon as answers are answers again."""
    router.offer()
    page.open_and_sign_in()
    for what in ("nothing", "no JSON", "cut", "an array", "null for the data", "a list for the data", "no fields",
                 "fields of the wrong type", "a bus status"):
        router.relay.fault = answers.instead_of(method, BROKEN[what])
        page.open()
        wait_until(lambda: page.visible("connection") or page.text("verdict"), f"{what} is dealt with")
        assert not page.visible("job") or page.text("job-title") == "One moment …", what
        if method in ("board", "access"):  # what is asked once for all is never taken from such an answer
            assert page.visible("connection") and not page.visible("versions"), what
        router.relay.fault = lambda *_: False
        page.await_text("verdict", "A new version is available")
        wait_until(lambda: page.text("here-version") == "r1234" and page.visible("update"), what)
