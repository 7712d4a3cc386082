# SPDX-License-Identifier: ISC
"""fwupdate-cli with a daemon that takes its time. These tests wait for real."""
import pytest

from simulated_router import Router, make_server

GOOD = "Version 2.1.0 (build 174117600) was downloaded and is good."


@pytest.fixture
def router(tmp_path):
    with Router(server_root=make_server(tmp_path)) as router:
        yield router


def test_an_answer_that_comes_after_the_commands_usual_limit_arrives(router):
    """The ubus command gives up after 30 seconds unless told otherwise."""
    result = router.run("fwupdate-cli update --yes --delay 31", seconds=120)
    assert result.status == 0 and GOOD in result.output
    assert "waiting for its installation" in result.output


def test_a_daemon_that_does_not_answer_is_named_and_an_update_survives_it(router):
    router.run("fwupdate-cli update --detach --yes --delay 2")
    router.run("kill -STOP $(pidof fwupdate)")
    stuck = router.run("fwupdate-cli status", seconds=60)
    assert stuck.status == 1 and "did not answer 'state' within 15 seconds" in stuck.output
    assert router.run("fwupdate-cli result").status == 4
    watching = router.open("fwupdate-cli watch")
    router.run("kill -CONT $(pidof fwupdate)")
    assert watching.wait(60) == 0
    assert GOOD in watching.output()
