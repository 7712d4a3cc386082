# SPDX-License-Identifier: ISC
"""The way of an update through the page, from signing in to "back", and its other ends."""
from router import NEW, OLD


def install(router, page):
    """As far as the installer's start; the router still runs."""
    page.start_update()
    page.await_stage("Installing")
    router.await_installer()


def test_whole_way_from_signing_in_to_back(router, page):
    router.offer_slowly()
    page.open()
    page.picture("sign-in")
    page.open_and_sign_in()
    assert "r1234" in page.text("here") and "171000000" in page.text("here")
    assert "r1300" in page.text("offer") and "174200000" in page.text("offer")
    assert page.text("notes") == "Faster start, fewer surprises."
    assert page.text("verdict") == "A newer version is available."
    page.picture("available")

    page.click("update")
    page.await_visible("question")
    assert "The settings are kept." in page.text("question")
    assert page.find("backup").get_attribute("href")
    assert "r1300 (build 174200000) replaces version r1234 (build 171000000)" in page.text("question-text")
    page.picture("question")
    page.click("yes")
    page.await_stage("Downloading")
    page.await_text("figures", "of 0.5 MiB")
    page.await_text("figures", "MiB/s")
    assert not page.find("check").is_enabled()
    page.picture("downloading")
    router.release()

    page.await_stage("Installing")
    page.picture("installing")
    router.await_installer()
    router.power_off()
    page.await_stage("Restarting")
    page.picture("restarting")
    router.power_on(NEW)
    page.await_stage("The router answers again")
    page.picture("answers-again")
    page.sign_in()
    page.await_stage("Done: the offered version runs")
    assert page.text("job-text") == "The router has restarted. It runs version r1300 (build 174200000)."
    page.await_text("verdict", "This router is up to date.")
    page.picture("done")
