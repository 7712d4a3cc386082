# SPDX-License-Identifier: ISC
"""Who may do what."""
from browser import wait_until


def test_wrong_password_is_said(router, page):
    page.open()
    page.sign_in(password="wrong")
    page.await_text("sign-in-fault", "Wrong user name or password.")
    page.sign_in(user="nobody")
    page.await_text("sign-in-fault", "Wrong user name or password.")
    page.sign_in()
    page.await_visible("versions")


def test_read_only_account_sees_no_buttons(router, page):
    router.offer()
    page.open_and_sign_in("viewer", "look")
    assert page.text("verdict") == "A new version is available"
    assert page.text("offer-version") == "r1300"
    assert page.text("read-only") == "This account may look, but not update."
    for name in ("update", "check", "anyway", "file-button", "anyway-part", "file-part"):
        assert not page.visible(name), name


def test_read_only_account_sees_a_running_update(router, page):
    router.offer_slowly()
    router.run("fwupdate-cli update --yes --detach")
    page.open()
    page.sign_in("viewer", "look")
    page.await_stage("Downloading")


def test_read_only_account_may_not_start(router, page):
    router.offer()
    page.open_and_sign_in("viewer", "look")
    reply = page.script("""
        const sid = JSON.parse(sessionStorage.getItem("fwupdate.session")).sid;
        return fetch("/ubus", { method: "POST", body: JSON.stringify({ jsonrpc: "2.0", id: 1, method: "call",
            params: [sid, "fwupdate-job", "start", {}] }) }).then((answer) => answer.json())""")
    assert reply["error"]["code"] == -32002


def test_ended_session_asks_again(router, page):
    page.open_and_sign_in()
    router.end_session(page.session()["sid"])
    # If the page has noticed by itself already, there is no button any more.
    page.script("document.getElementById('check').click()")
    page.await_visible("sign-in")
    assert page.text("sign-in-why") == "Your session has ended."
    page.sign_in()
    page.await_visible("versions")


def test_question_ends_with_the_session(router, page):
    """Nothing stands between the owner and the sign-in form."""
    router.offer()
    page.open_and_sign_in()
    page.click("update")
    page.await_visible("question")
    router.end_session(page.session()["sid"])
    page.look_now()
    page.await_visible("sign-in")
    assert not page.visible("question")
    assert page.script("return document.activeElement.id") == "password"
    page.sign_in()
    page.await_visible("versions")
    assert not page.visible("question")


def test_signing_out_ends_the_session(router, page):
    page.open_and_sign_in()
    sid = page.session()["sid"]
    page.click("sign-out")
    page.await_visible("sign-in")
    assert not page.visible("versions")
    assert page.session() is None
    assert router.call(sid, "fwupdate", "state", {})["error"]["code"] == -32002


def test_password_is_kept_nowhere(router, page):
    page.open_and_sign_in()
    assert page.find("password").get_attribute("value") == ""
    assert "router" not in page.script("return JSON.stringify(sessionStorage) + JSON.stringify(localStorage) + location")


def test_page_in_a_frame_does_nothing(router, page):
    router.run("echo '<!DOCTYPE html><title>x</title><iframe src=/fwupdate/></iframe>' >/www/frame.html")
    page.driver.get(page.address.replace("/fwupdate/", "/frame.html"))
    wait_until(lambda: page.driver.find_elements("tag name", "iframe"), "the frame is there")
    frame = page.driver.find_element("tag name", "iframe")
    page.driver.switch_to.frame(frame)
    wait_until(lambda: page.driver.find_elements("id", "in-frame"), "the page is in it")
    page.await_visible("in-frame")
    assert not page.visible("sign-in")
    page.driver.switch_to.default_content()
