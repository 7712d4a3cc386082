# SPDX-License-Identifier: ISC
"""fwupdate-cli says so when an answer is lost, and tells from the state what it can."""
from kept_answer import await_download, await_installer, kept


def restart_bus(router):
    """With everybody on it; the daemon comes back by itself."""
    router.run("kill $(pidof ubusd); busybox setsid ubusd </dev/null >/dev/null 2>&1 &")
    router.wait_for("ubus list >/dev/null")
    router.run("busybox setsid routerd </dev/null >/dev/null 2>&1 &")


def kill_daemon(router):
    """Its worker has the same name; the daemon is the older one."""
    router.run("kill -KILL $(pidof fwupdate | tr ' ' '\n' | sort -n | head -n 1)")


def restart_daemon(router):
    """Without its worker, which would keep the new one from starting for a while."""
    router.run("kill -KILL $(pidof fwupdate)")
    router.wait_for("! pidof fwupdate")
    router.run("busybox setsid /usr/sbin/fwupdate --debug </dev/null >/dev/null 2>&1 &")
    router.must("ubus -t 60 wait_for fwupdate")


def test_a_restart_of_the_bus_loses_the_answer_and_it_says_so(router):
    terminal = router.open("fwupdate-cli update --yes", 80)
    terminal.expect(" %")
    restart_bus(router)
    # The daemon goes on, and its state tells how far it comes.
    assert "The bus was restarted" in terminal.expect("its answer does not come here")
    router.release()
    assert terminal.wait() == 1
    assert "the image is good" in terminal.output()
    assert kept(router)["lost"] == "bus"
    assert "sysupgrade" in router.wait_for("cat /var/log/sysupgrade")


def test_after_a_restart_of_the_bus_the_next_update_is_answered(router):
    router.run("fwupdate-cli update --detach --yes")
    await_download(router)
    restart_bus(router)
    watching = router.open("fwupdate-cli watch")
    watching.expect("The bus was restarted")
    router.release()
    assert watching.wait() == 1
    await_installer(router)
    assert router.run("fwupdate-cli update --yes").status == 0


def test_a_daemon_that_stays_away_is_told(router):
    router.run("fwupdate-cli update --detach --yes")
    await_download(router)
    kill_daemon(router)
    router.wait_for("fwupdate-cli result --json | grep -q lost")
    told = router.run("fwupdate-cli result")
    assert told.status == 1 and "The daemon is not on the bus" in told.output


def test_a_daemon_that_ends_during_an_update_is_noticed(router):
    terminal = router.open("fwupdate-cli update --yes", 80)
    terminal.expect(" %")
    restart_daemon(router)
    terminal.expect("The daemon ended or was restarted")
    assert terminal.wait() == 1
    assert "start the update again" in terminal.output()
    assert kept(router)["lost"] == "daemon"
    router.release()
    assert router.run("fwupdate-cli update --yes").status == 0


def test_a_killed_keeper_is_noticed(router):
    router.run("fwupdate-cli update --detach --yes")
    await_download(router)
    router.run("kill -KILL $(cat /tmp/fwupdate-cli/job.*/pid /tmp/fwupdate-cli/job.*/call)")
    watching = router.open("fwupdate-cli watch")
    watching.expect("does not come here")
    router.release()
    assert watching.wait() == 1
    assert "the answer is lost" in watching.output()
    assert kept(router)["lost"] == "call"


def test_a_stranger_with_the_keepers_number_is_not_taken_for_it(fast_router):
    router = fast_router
    router.run("fwupdate-cli update --yes")
    router.run("cd /tmp/fwupdate-cli/job.* && rm end && pidof syslogd >pid && echo 99999 >watcher")
    assert kept(router) | {"started": 0} == {
        "job": "lost", "started": 0, "lost": "call",
        "arguments": {"partition": "firmware2", "timeout": 900, "attempts": 3, "delay": 0}}
