# SPDX-License-Identifier: ISC
"""fwupdate-cli never loses an answer, whatever becomes of who is watching."""
import signal

import pytest

from kept_answer import await_download, kept

GOOD = "Version 2.1.0 (build 174117600) was downloaded and is good."
GOES_ON = "Stopped watching; the update goes on."


# A busy machine may take longer to look again than the download takes.
UPDATE = "fwupdate-cli update --yes --delay 8"


def test_ctrl_c_ends_the_watching_only(router):
    terminal = router.open(UPDATE, 80)
    terminal.expect(" % ")
    terminal.interrupt()
    assert terminal.wait() == -signal.SIGINT
    assert GOES_ON in terminal.output()
    again = router.open("fwupdate-cli watch", 80)
    again.expect("waiting for its installation")
    assert again.wait() == 0
    assert GOOD in again.output()


def test_a_hang_up_ends_the_watching_only(router):
    terminal = router.open(UPDATE, 80)
    terminal.expect(" % ")
    terminal.hang_up()
    assert terminal.wait() in (-signal.SIGHUP, 128 + signal.SIGHUP)
    assert kept(router)["job"] == "running"
    assert GOOD in router.run("fwupdate-cli watch").output
    assert GOOD in router.run("fwupdate-cli result", 80).output


def test_a_reader_that_leaves_ends_the_watching_only(router):
    assert "Downloading" in router.run("fwupdate-cli update --yes | sed /Downloading/q").output
    assert GOOD in router.run("fwupdate-cli watch").output


def test_signals_for_the_whole_group_end_the_watching_only(router):
    program = router.open("echo $$; exec fwupdate-cli update --yes")
    group = program.expect("Downloading").split()[0]
    for name in ("TERM", "INT", "QUIT", "HUP"):
        router.run(f"kill -{name} -{group}")
    assert program.wait() < 0
    assert GOOD in router.run("fwupdate-cli watch").output


def test_of_several_started_at_once_one_runs_and_the_others_are_told(router):
    many = [router.open(f"{UPDATE} --detach") for _ in range(8)]
    statuses = sorted(program.wait() for program in many)
    assert statuses == [0, 4, 4, 4, 4, 4, 4, 4]
    told = [program.output() for program in many if program.wait() == 4]
    assert all("running already" in text or "somebody else" in text for text in told), told
    assert router.run("fwupdate-cli watch").status == 0
    assert router.run("ls -d /tmp/fwupdate-cli/job.* | wc -l").output == "1\n"
    assert router.run("grep -c 'GET /firmware.bin' /var/log/nginx-access.log").output == "1\n"


# All wait for the same moment; `won` has a line for each that took the job.
RACE = """
parts=/usr/share/fwupdate-cli; . $parts/job.sh; . $parts/bus.sh; failed=1
for i in 1 2 3 4 5 6 7 8 9 10 11 12; do
	( until [ -e /tmp/go ]; do :; done; ! claim_job '{}' || echo $i >>/tmp/won; sleep 3 ) &
done
sleep 1; touch /tmp/go; wait; wc -l </tmp/won; rm -rf /tmp/go /tmp/won
"""


def test_one_job_is_taken_by_one_only(router):
    for _ in range(3):
        assert router.run(RACE).output == "1\n"
        router.run("echo 'answered nothing 0' | tee /tmp/fwupdate-cli/job.*/end")


# While one looks at job 3, which is over, others take 4 and 5 and clear the old ones away.
LATE = """
parts=/usr/share/fwupdate-cli; . $parts/job.sh; . $parts/bus.sh; failed=1
mkdir -p -m 700 $jobs/job.3
job_runs() { mkdir $jobs/job.5; rm -r $jobs/job.3; return 1; }
claim_job '{}' && echo won; ls $jobs
"""


def test_who_comes_late_does_not_take_a_number_that_is_free_again(router):
    assert router.run(LATE).output == "job.5\n"


@pytest.mark.parametrize("command", ["check", "check --json", "test /bin/busybox", "update --yes",
                                     "update --detach --yes"])
def test_what_would_disturb_a_running_update_is_refused(router, command):
    router.run(f"{UPDATE} --detach")
    before = kept(router)
    refused = router.run(f"fwupdate-cli {command}", 80)
    assert refused.status == 4
    assert "'fwupdate-cli watch' follows it" in refused.output
    assert kept(router) == before


def test_an_update_of_somebody_else_is_met(router):
    router.open("ubus -t 60 call fwupdate update '{\"attempts\":2}'")
    await_download(router)
    refused = router.run("fwupdate-cli update --yes")
    assert refused.status == 4 and "for somebody else" in refused.output
    watched = router.run("fwupdate-cli watch", 80)
    assert watched.status == 0 and " % " in watched.output and "has ended" in watched.output


def test_an_update_of_somebody_else_that_cannot_be_seen_is_told(router):
    router.open("ubus -t 60 call fwupdate update '{\"attempts\":2,\"delay\":30}'")
    router.wait_for("fwupdate-cli status --json | grep -q WAIT_DELAY")
    refused = router.run("fwupdate-cli update --yes")
    assert refused.status == 4 and "Already updating" in refused.output
    assert kept(router)["result"] == "busy"
    assert router.run("fwupdate-cli result").status == 4


def test_the_folder_is_private(router):
    router.run("umask 000; fwupdate-cli update --detach --yes; fwupdate-cli watch")
    modes = router.run("stat -c '%a' /tmp/fwupdate-cli /tmp/fwupdate-cli/job.*").output.split()
    assert modes == ["700", "700"]
    files = router.run("stat -c '%a' /tmp/fwupdate-cli/job.*/*").output.split()
    assert files and set(files) == {"600"}


@pytest.mark.parametrize("trap", [
    "mkdir /tmp/elsewhere; ln -s /tmp/elsewhere /tmp/fwupdate-cli",
    "ln -s /tmp/nowhere /tmp/fwupdate-cli",
    "echo >/tmp/fwupdate-cli"])
def test_a_folder_of_somebody_else_is_not_used(router, trap):
    router.run(trap)
    for command in ("update --detach --yes", "result", "watch", "check"):
        refused = router.run(f"fwupdate-cli {command}")
        assert refused.status == 1
        assert "'/tmp/fwupdate-cli' is not a folder of yours" in refused.output
    assert router.run("ls -A /tmp/elsewhere /tmp/nowhere /tmp/fwupdate-cli/").output.count("job") == 0


def test_the_next_update_replaces_the_answer(router):
    router.run("fwupdate-cli update --yes")
    first = kept(router)
    router.run("fwupdate-cli update --yes --force")
    second = kept(router)
    assert second["arguments"]["force"] == "1"
    assert second["started"] >= first["ended"]
    assert router.run("ls /tmp/fwupdate-cli").output == "job.2\n"


def fill_tmp(router):
    router.run("dd if=/dev/zero of=/tmp/filler bs=4096 2>/dev/null")


def test_an_answer_is_kept_although_tmp_is_full(router):
    """The image stays where it is, and nothing makes room for the answer."""
    router.run("fwupdate-cli update --detach --yes --delay 5")
    router.wait_for("fwupdate-cli status --json | grep -q WAIT_DELAY")
    fill_tmp(router)
    router.run("fwupdate-cli watch")
    assert (kept(router)["job"], kept(router)["result"]) == ("answered", "installing")
    assert kept(router)["answer"]["error_code"] == "0"


def test_with_tmp_full_nothing_is_started_and_it_says_why(router):
    fill_tmp(router)
    refused = router.run("fwupdate-cli update --yes --detach")
    assert refused.status == 1
    assert "cannot be written" in refused.output and "Is /tmp full?" in refused.output
    router.run("rm /tmp/filler")
    assert router.run("fwupdate-cli update --yes").status == 0
