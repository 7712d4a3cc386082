# SPDX-License-Identifier: ISC
"""The way of an update through the page, from signing in to "back", and its other ends."""
import json

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


def test_whole_way_from_signing_in_to_back(router, page):
    router.offer_slowly()
    page.open()
    page.open_and_sign_in()
    assert [page.text(name) for name in ("here-version", "offer-version")] == ["r1234", "r1300"]
    assert not page.visible("here-build"), "builds are details"
    assert page.text("notes") == "Faster start, fewer surprises."
    assert page.text("verdict") == "A new version is available"

    page.click("update")
    page.await_visible("question")
    assert "The settings are kept." in page.text("question")
    assert page.text("question-text") == "Version r1300 replaces version r1234."
    page.click("yes")
    page.await_stage("Downloading")
    page.await_text("figures", "of 2.0 MiB")
    await_half(router, page)
    assert "%" in page.text("figures")
    assert not page.visible("versions"), "nothing else on the page"
    router.release()

    page.await_stage("Installing")
    router.await_installer()
    router.power_off()
    page.await_stage("Restarting")
    assert not page.visible("sign-in")
    router.power_on(NEW)
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Update complete")
    assert page.text("job-text") == "The router has restarted and runs version r1300."
    page.await_text("verdict", "This router is up to date")
    page.click("close-job")
    page.await_hidden("job")


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


def test_failed_download_says_why(router, page):
    (router.served / "firmware.bin").unlink()
    router.offer(url="http://192.0.2.1:9/firmware.bin")
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("The update failed")
    assert page.text("job-text").startswith("The download failed. Nothing was changed.")


def test_unknown_size_is_said(router, page):
    router.offer_slowly(size="unknown")
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("Downloading")
    page.await_text("job-text", "The size of the firmware is not known yet.")
    assert not page.visible("figures")
    assert not page.script("return document.getElementById('bar').hasAttribute('value')")


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


def test_older_build_is_no_update(router, page):
    router.offer(build="170000000", version="r1100")
    page.open_and_sign_in()
    assert page.text("verdict") == "This router is up to date"
    assert page.text("offer-version") == "r1100"


def test_demanded_older_build_is_an_update(router, page):
    router.offer(build="170000000", version="r1100", more="<force_update>1</force_update>")
    page.open_and_sign_in()
    assert page.text("verdict") == "The update server asks for this version"
    assert page.visible("update")


def test_old_version_after_the_restart_is_no_success(router, page):
    install_offered(router, page)
    restart(router, page, OLD)
    page.await_stage("The router still runs the old version")
    assert page.text("job-text") == "It has restarted with version r1234. Version r1300 was not installed, or did not start."


def test_other_version_after_the_restart_is_said(router, page):
    install_offered(router, page)
    restart(router, page, {"revision": "r1299", "build": "174100000"})
    page.await_stage("The router runs an unexpected version")
    assert page.text("job-text") == "It has restarted with version r1299. Version r1300 was offered."


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
    socket, hidden = router.shared / "http", router.shared / "hidden"
    socket.rename(hidden)
    page.await_stage("Restarting")
    router.end_session(page.session()["sid"], hidden)
    hidden.rename(socket)
    page.await_stage("The router answers again")
    page.sign_in()
    page.await_stage("Installing")
