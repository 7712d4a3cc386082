# SPDX-License-Identifier: ISC
"""The update belongs to the router: pages, tabs and sessions come and go."""
import json

import answers
from browser import WAIT, wait_until


def downloading(router, page):
    router.offer_slowly()
    page.open_and_sign_in()
    page.start_update()
    page.await_stage("Downloading")


def test_reload_in_the_middle_loses_nothing(router, page):
    downloading(router, page)
    page.script("localStorage.setItem('fwupdate.took', '[2.2, 3.9]')")  # as after two updates
    page.open()
    page.await_stage("Downloading")
    assert page.text("account") == "root", "a reload does not ask for the password"
    router.release()
    page.await_stage("Installing")
    assert "usually 2 to 4 minutes" in page.text("figures")
    page.open()
    page.await_stage("Installing")


def test_second_tab_sees_the_same_update(router, page):
    downloading(router, page)
    other = page.second_tab()
    other.sign_in()
    other.await_stage("Downloading")
    assert not other.visible("versions")
    router.release()
    other.await_stage("Installing")
    page.look()
    page.await_stage("Installing")


def test_second_start_is_told_that_one_runs(router, page):
    """The page has not seen the other one yet: it is the router that refuses."""
    router.offer_slowly()
    page.open_and_sign_in()
    page.click("update")
    held = answers.Held("status")
    router.relay.fault = held
    page.look_now()
    assert held.came.wait(WAIT)
    router.run("fwupdate-cli update --yes --detach")
    assert not page.visible("job")
    page.click("yes")
    wait_until(lambda: "start" in held.others, "the router is asked")
    held.release()
    page.await_text("connection", "Not started. An update is already running.")
    page.await_stage("Downloading")


def test_question_that_came_too_late_is_told_so(router, page):
    """The page has seen the other one while its question was open: it asks the router for nothing."""
    router.offer_slowly()
    page.open_and_sign_in()
    page.click("update")
    asked = []
    router.relay.fault = lambda name, method, browser: asked.append(method)
    router.run("fwupdate-cli update --yes --detach")
    page.look_now()
    page.await_stage("Downloading")
    page.click("yes")
    page.await_hidden("question")
    page.await_text("connection", "Not started. An update is already running.")
    assert "start" not in asked


def test_update_started_at_the_prompt_is_seen(router, page):
    router.offer_slowly()
    page.open_and_sign_in()
    router.run("fwupdate-cli update --yes --detach")
    page.look_now()
    page.await_stage("Downloading")
    assert not page.visible("job-hint")


def test_session_that_ends_does_not_end_the_update(router, page):
    downloading(router, page)
    router.end_session(page.session()["sid"])
    page.await_visible("sign-in")
    assert page.text("sign-in-why") == "Your session has ended. The update goes on without it."
    assert page.find("user").get_attribute("value") == "root"
    assert not page.visible("job"), "who is signed out sees nothing of it"
    router.release()
    page.sign_in()
    page.await_stage("Installing")


def test_session_that_ends_while_installing_is_no_restart(router, page):
    downloading(router, page)
    router.release()
    page.await_stage("Installing")
    router.end_session(page.session()["sid"])
    page.await_visible("sign-in")
    assert page.text("sign-in-why") == "Your session has ended. The update goes on without it."
    page.sign_in()
    page.await_stage("Installing")


def test_lost_answer_is_said(router, page):
    downloading(router, page)
    router.lose_the_daemon()
    page.await_stage("The result of the update is unknown")
    router.bring_the_daemon_back()
    page.click("close-job")
    page.await_hidden("job")
    page.click("check")
    page.await_text("verdict", "A new version")


def test_answer_outlives_the_gateways_limit(make_router, make_page):
    """An update takes longer than the gateway waits for any call."""
    router = make_router("--web-limit", "5")
    page = make_page(router)
    router.offer_slowly()
    page.open_and_sign_in()
    page.check_until("A new version")
    page.start_update()
    page.await_stage("Downloading")
    router.wait_for("[ $(($(date +%s) - $(fwupdate-cli result --json | jsonfilter -e @.started))) -gt 6 ]")
    page.await_stage("Downloading")
    router.release()
    page.await_stage("Installing")


def test_two_starts_at_once_give_one_job(router):
    router.offer_slowly()
    replies = router.run("""for n in 1 2 3; do
        echo '{"force":true}' | /usr/libexec/rpcd/fwupdate-job call start & started="$started $!"
        done; wait $started""")
    assert sorted(json.loads(line)["status"] for line in replies.splitlines()) == [0, 4, 4]
