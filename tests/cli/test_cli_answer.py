# SPDX-License-Identifier: ISC
"""fwupdate-cli never loses an answer, whatever becomes of who is watching."""
import signal

import pytest

from kept_answer import await_installer, kept

GOOD = "Version 2.1.0 (build 174117600) was downloaded and is good."
GOES_ON = "Stopped watching; the update goes on."


def test_ctrl_c_ends_the_watching_only(router):
    terminal = router.open("fwupdate-cli update --yes", 80)
    terminal.expect(" %")
    terminal.interrupt()
    assert terminal.wait() == -signal.SIGINT
    assert GOES_ON in terminal.output()
    again = router.open("fwupdate-cli watch", 80)
    again.expect(" %")
    router.release()
    assert again.wait() == 0
    assert GOOD in again.output()


def test_a_hang_up_ends_the_watching_only(router):
    terminal = router.open("fwupdate-cli update --yes", 80)
    terminal.expect(" %")
    terminal.hang_up()
    assert terminal.wait() in (-signal.SIGHUP, 128 + signal.SIGHUP)
    assert kept(router)["job"] == "running"
    router.release()
    assert GOOD in router.run("fwupdate-cli watch").output
    assert GOOD in router.run("fwupdate-cli result", 80).output


def test_a_reader_that_leaves_ends_the_watching_only(router):
    program = router.open("fwupdate-cli update --yes | { until echo $line | grep Downloading; do read -r line; done; }")
    program.expect("Downloading")
    router.release()
    program.wait()
    assert GOOD in router.run("fwupdate-cli watch").output


def test_signals_for_the_whole_group_end_the_watching_only(router):
    program = router.open("echo $$; exec fwupdate-cli update --yes")
    group = program.expect("Downloading").split()[0]
    for name in ("TERM", "INT", "QUIT", "HUP"):
        router.run(f"kill -{name} -{group}")
    assert program.wait() < 0
    router.release()
    assert GOOD in router.run("fwupdate-cli watch").output


def test_the_folder_is_private(fast_router):
    router = fast_router
    router.run("umask 000; fwupdate-cli update --detach --yes; fwupdate-cli watch")
    modes = router.run("busybox stat -c '%a' /tmp/fwupdate-cli /tmp/fwupdate-cli/job.*").output.split()
    assert modes == ["700", "700"]
    files = router.run("busybox stat -c '%a' /tmp/fwupdate-cli/job.*/*").output.split()
    assert files and set(files) == {"600"}


@pytest.mark.parametrize("trap", [
    "mkdir /tmp/elsewhere; ln -s /tmp/elsewhere /tmp/fwupdate-cli",
    "ln -s /tmp/nowhere /tmp/fwupdate-cli",
    "echo >/tmp/fwupdate-cli"])
def test_a_folder_of_somebody_else_is_not_used(fast_router, trap):
    router = fast_router
    router.run(trap)
    for command in ("update --detach --yes", "result", "watch", "check"):
        refused = router.run(f"fwupdate-cli {command}")
        assert refused.status == 1
        assert "'/tmp/fwupdate-cli' is not a folder of yours" in refused.output
    assert router.run("ls -A /tmp/elsewhere /tmp/nowhere /tmp/fwupdate-cli/").output.count("job") == 0


def test_the_next_update_replaces_the_answer(fast_router):
    router = fast_router
    router.run("fwupdate-cli update --yes")
    first = kept(router)
    await_installer(router)
    router.run("fwupdate-cli update --yes --force")
    second = kept(router)
    assert second["arguments"]["force"] == "1"
    assert second["started"] >= first["ended"]
    assert router.run("ls /tmp/fwupdate-cli").output == "job.2\n"


def fill_tmp(router):
    router.run("dd if=/dev/zero of=/tmp/filler bs=4096 2>/dev/null")


def test_an_answer_is_kept_although_tmp_is_full(fast_router):
    """The image stays where it is, and nothing makes room for the answer."""
    router = fast_router
    router.run("fwupdate-cli update --detach --yes --delay 10")
    router.wait_for("fwupdate-cli status --json | grep -q WAIT_DELAY")
    fill_tmp(router)
    router.run("fwupdate-cli watch")
    assert (kept(router)["job"], kept(router)["result"]) == ("answered", "installing")
    assert kept(router)["answer"]["error_code"] == "0"


def test_with_tmp_full_nothing_is_started_and_it_says_why(fast_router):
    router = fast_router
    fill_tmp(router)
    refused = router.run("fwupdate-cli update --yes --detach")
    assert refused.status == 1
    assert "cannot be written" in refused.output and "Is /tmp full" in refused.output
    router.run("rm /tmp/filler")
    assert router.run("fwupdate-cli update --yes").status == 0
