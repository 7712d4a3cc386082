# SPDX-License-Identifier: ISC
"""The way of an update through the page, from signing in to "back", and its other ends."""
import json
import re

import answers
from browser import await_half, wait_until
from router import NEW, OLD


def install(router, page, button="update"):
    """As far as the installer's start; the router still runs."""
    page.start_update(button)
    page.await_stage("Installing")
    router.await_installer()


def install_offered(router, page):
    router.offer()
    page.open_and_sign_in()
    install(router, page)


def restart(router, page, runs):
    """Signed in again on what the router runs after its restart."""
    router.power_off()
    page.await_stage("Restarting")
    router.power_on(runs)
    page.await_stage("The router answers again")
    page.sign_in()


CALLS = {"fwupdate-job": {"check", "start", "status"}, "session": {"access", "destroy", "login"}, "system": {"board"}}


def test_whole_way_from_signing_in_to_back(router, page):
    called = {name: set() for name in CALLS}
    router.relay.fault = lambda name, method, _: name and called[name].add(method)
    router.offer_slowly()
    page.open_and_sign_in()
    assert [page.text(name) for name in ("router", "account")] == ["router", "root"]
    assert [page.text(name) for name in ("here-version", "offer-version")] == ["r1234", "r1300"]
    assert re.match(r"Last check: \d+:\d\d", page.text("checked-at"))
    assert not page.visible("here-build"), "builds are details"
    assert page.text("notes") == "Faster start, fewer surprises."
    assert page.text("verdict") == "A new version is available"
    sign, large, usual = page.script("""
        const style = (id, part) => getComputedStyle(document.getElementById(id), part);
        return [style("verdict", "::before").content, style("verdict").fontSize, style("here-version").fontSize]""")
    assert "\u2191" in sign and float(large[:-2]) >= 1.4 * float(usual[:-2])

    page.click("update")
    page.await_visible("question")
    assert "The settings are kept." in page.text("question")
    assert page.text("question-text") == "Version r1300 replaces version r1234."
    page.click("yes")
    page.await_stage("Downloading")
    page.await_text("figures", "of 2.0 MiB")
    await_half(router, page)
    assert page.driver.title == "50% – Firmware update"
    assert not page.visible("versions"), "nothing else on the page"
    router.release()

    page.await_stage("Installing")
    assert page.text("job-stays") == "You can close this page; the update goes on."
    router.await_installer()
    router.power_off()
    page.await_stage("Restarting")
    assert not page.visible("sign-in")
    assert re.fullmatch(r"\d\d:\d\d so far · usually 3 to 5 minutes", page.text("figures"))
    assert not page.script("return document.getElementById('bar').hasAttribute('value')"), "a bar without end"
    router.power_on(NEW)
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Update complete")
    assert page.driver.title == "Update complete – Firmware update"
    assert page.text("job-text") == "The router has restarted and runs version r1300."
    page.await_text("verdict", "This router is up to date")
    page.click("close-job")
    page.await_hidden("job")
    assert len(page.script("return JSON.parse(localStorage.getItem('fwupdate.took'))")) == 1, "how long it took is kept"
    assert called == CALLS


def test_verifying_is_shown(router, page):
    """The daemon answers nobody while it verifies."""
    finish_verifying = router.verify_slowly()
    router.offer_slowly()
    page.open_and_sign_in()
    page.start_update()
    page.await_text("figures", "25%")
    router.release()
    page.await_stage("Verifying")
    finish_verifying()
    page.await_stage("The update failed")


def test_failed_check_says_why(router, page):
    router.make_image(model="MODEL-Y")
    router.offer()
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("The update failed")
    assert page.text("job-text") == "The firmware is damaged, or made for another model. Nothing was changed."
    assert page.text("job-detail") == "The router says: Error on checking firmware"
    assert page.find("update").is_enabled()
    page.click("close-job")
    page.await_hidden("job")
    page.open()
    page.await_text("verdict", "A new version")
    assert not page.visible("job"), "an outcome that was closed stays closed"


def test_same_build_can_be_installed_anyway(router, page):
    page.open_and_sign_in()
    assert page.text("verdict") == "This router is up to date"
    assert not page.visible("update")
    assert not page.visible("anyway"), "it is tucked away"
    page.find("anyway-part").click()
    install(router, page, "anyway")
    assert json.loads(router.run("fwupdate-cli result --json"))["answer"]["force_update"] == "1"
    restart(router, page, OLD)
    page.await_stage("Update complete")


def test_old_version_after_the_restart_is_no_success(router, page):
    install_offered(router, page)
    restart(router, page, OLD)
    page.await_stage("The router still runs the old version")
    assert page.text("job-text") == "It has restarted with version r1234. Version r1300 was not installed, or did not start."


def test_new_version_without_the_plugin_is_known_by_its_build(router, page):
    """The new firmware came without this page's package: there is no boot id to compare."""
    install_offered(router, page)
    router.power_off()
    page.await_stage("Restarting")
    router.relay.fault = answers.instead_of("status", answers.error(-32000))
    router.power_on(NEW)
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Update complete")


def test_router_that_does_not_restart_is_no_success(router, page):
    """The installer refused: the old system is still there minutes later."""
    install_offered(router, page)
    page.put_clock_forward(2)
    page.await_stage("Installing")
    page.put_clock_forward(1.1)
    page.await_stage("The router did not restart")
    assert "3 minutes ago" in page.text("job-text")
    assert not page.visible("versions"), "no button contradicts the advice"
    page.click("close-job")
    page.await_hidden("job")
    page.click("check")
    page.await_text("verdict", "A new version")


def test_page_opened_after_the_installer_refused_knows_it(router, page):
    """The router's own clock says how long ago: no page was open meanwhile."""
    router.offer()
    router.run("fwupdate-cli update --yes")
    router.await_installer()
    # Its last word is when the answer came.
    router.run("""set -- /tmp/fwupdate-cli/job.*/end; read -r one two ended <"$1"; echo "$one $two $((ended - 200))" >"$1" """)
    page.open()
    page.sign_in()
    page.await_stage("The router did not restart")


def test_router_that_stays_away_gets_a_hint(router, page):
    install_offered(router, page)
    router.power_off()
    page.await_stage("Restarting")
    page.put_clock_forward(9)
    missed = router.relay.missed
    wait_until(lambda: router.relay.missed > missed + 1, "the page looks again")
    assert not page.visible("job-hint")
    page.put_clock_forward(1.1)
    page.await_visible("job-hint")
    assert "another address or certificate" in page.text("job-hint")


def test_lost_connection_is_no_restart(router, page):
    """The cable was out, longer than a session lasts; the same system comes back."""
    install_offered(router, page)
    router.relay.fault = lambda *_: True
    page.await_stage("Restarting")
    router.end_session(page.session()["sid"])
    router.relay.fault = lambda *_: False
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Installing")
