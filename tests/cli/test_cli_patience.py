# SPDX-License-Identifier: ISC
"""fwupdate-cli with a daemon that takes its time. These tests wait for real."""
from kept_answer import await_download

GOOD = "Version 2.1.0 (build 174117600) was downloaded and is good."


def test_an_answer_that_comes_after_the_commands_usual_limit_arrives(fast_router):
    """The ubus command gives up after 30 seconds unless told otherwise."""
    result = fast_router.run("fwupdate-cli update --yes --delay 31", seconds=120)
    assert result.status == 0 and GOOD in result.output
    assert "waiting for its installation" in result.output


def test_without_an_update_a_silent_daemon_may_be_restarted(fast_router):
    fast_router.must("sed -i 's/^state_limit=15/state_limit=2/' /usr/share/fwupdate-cli/bus.sh")
    fast_router.stop_daemon()
    stuck = fast_router.run("fwupdate-cli status --json")
    fast_router.continue_daemon()
    assert stuck.status == 1 and "/etc/init.d/fwupdate restart" in stuck.output


def test_a_daemon_that_does_not_answer_is_named_and_an_update_survives_it(router):
    router.run("fwupdate-cli update --detach --yes")
    await_download(router)
    router.stop_daemon()
    stuck = router.run("fwupdate-cli status")
    assert stuck.status == 1 and "did not answer 'state' within 15 seconds" in stuck.output
    assert "An update is running" in stuck.output and "restart" not in stuck.output
    assert router.run("fwupdate-cli result").status == 4
    watching = router.open("fwupdate-cli watch")
    router.continue_daemon()
    router.release()
    assert watching.wait() == 0
    assert GOOD in watching.output()
