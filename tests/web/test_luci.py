# SPDX-License-Identifier: ISC
"""System > Firmware update in LuCI, of which testbed/web/luci is a stand-in: the card, and the way to the page."""
import pytest

from browser import wait_until
from router import NEW
from simulated_router import PROJECT

NULL = "0" * 32


@pytest.fixture
def luci(router, page):
    """Signed in to LuCI, with the view open."""
    package = PROJECT / "package/luci-app-fwupdate"

    def put():
        router.run(f"""cp -R {PROJECT}/testbed/web/luci/. {package}/htdocs/. /www/; cp -R {package}/root/. /
            cp {package}/root/usr/share/luci/menu.d/*.json /www/luci-static/menu.json
            printf "config login\\n\\toption username 'guest'\\n\\toption password '\\$p\\$root'\\n\\tlist read 'luci-app-fwupdate'\\n\\tlist read 'unauthenticated'\\n" >>/etc/config/rpcd""")

    def enter(user="root", password="router"):
        put()
        reply = router.call(NULL, "session", "login", {"username": user, "password": password})
        sid = reply["result"][1]["ubus_rpc_session"]
        page.driver.get(page.address.replace("/fwupdate/", f"/cgi-bin/luci/#{sid}"))
        wait_until(lambda: page.driver.find_elements("id", "fwupdate-open"), "the view is there")
        page.put = put
        return page

    return enter


def test_card_and_whole_update_with_lucis_session(router, luci):
    router.offer()
    page = luci()
    assert page.text("fwupdate-installed") == "r1234"
    page.await_text("fwupdate-available", "r1300")
    assert page.text("fwupdate-open") == "Update…"
    page.click("fwupdate-open")
    page.await_text("verdict", "A new version is available")
    assert not page.visible("sign-in"), "nobody signs in twice"
    assert page.visible("luci") and page.text("luci") == "Back to LuCI"
    assert page.text("sign-out") == "Sign out, of LuCI too"
    assert not page.visible("account"), "LuCI does not tell the user's name"
    page.start_update()
    page.await_stage("Installing")
    router.await_installer()
    router.power_off()
    page.await_stage("Restarting")
    router.power_on(NEW)
    page.await_stage("The router answers again")
    assert page.find("user").get_attribute("value") == "root"
    page.sign_in()
    page.await_stage("Update complete")
    assert page.visible("luci"), "the way back outlives the restart"


def test_signing_out_ends_lucis_session(router, luci):
    page = luci()
    page.click("fwupdate-open")
    page.await_visible("versions")
    sid = page.session()["sid"]
    page.click("sign-out")
    page.await_visible("sign-in")
    wait_until(lambda: "error" in router.call(sid, "system", "board", {}), "the session has ended")


def test_account_that_may_only_look(router, luci):
    router.offer()
    page = luci("guest")
    page.await_text("fwupdate-available", "r1300")
    assert page.text("fwupdate-open") == "Show…"
    page.click("fwupdate-open")
    page.await_text("read-only", "This account may look, but not update.")
    assert not page.visible("update")


def test_what_the_server_says_is_text(router, luci):
    router.offer(version="&lt;b id=x&gt;r2&lt;/b&gt;")
    page = luci()
    page.await_text("fwupdate-available", "<b id=x>r2</b>")
    assert not page.driver.find_elements("id", "x")
