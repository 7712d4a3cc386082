# SPDX-License-Identifier: ISC
"""One update at a time: fwupdate-cli while another one runs."""
import shlex

import pytest

from kept_answer import await_download, kept


def test_of_several_started_at_once_one_runs_and_the_others_are_told(router):
    many = [router.open("fwupdate-cli update --yes --detach") for _ in range(8)]
    statuses = sorted(program.wait() for program in many)
    assert statuses == [0, 4, 4, 4, 4, 4, 4, 4]
    told = [program.output() for program in many if program.wait() == 4]
    assert all("running already" in text or "somebody else" in text for text in told), told
    router.release()
    assert router.run("fwupdate-cli watch").status == 0
    assert router.run("ls -d /tmp/fwupdate-cli/job.* | wc -l").output == "1\n"
    assert router.run("grep -c 'GET /firmware.bin' /var/log/held-server").output == "1\n"


PARTS = """
set -u; parts=/usr/share/fwupdate-cli; failed=1
. $parts/text.sh; . $parts/job.sh; . $parts/bus.sh; . $parts/keeper.sh
force='' partition='' timeout=900 attempts=3 delay=0
"""
# All wait for the same moment; `won` has a line for each that took the job.
RACER = PARTS + "until [ -e /tmp/go ]; do :; done; ! claim_job || echo $1 >>/tmp/won; sleep 3"
RACE = """
for i in 1 2 3 4 5 6 7 8 9 10 11 12; do sh /tmp/racer $i & done
sleep 1; touch /tmp/go; wait; wc -l </tmp/won; rm -rf /tmp/go /tmp/won
"""


def test_one_job_is_taken_by_one_only(fast_router):
    router = fast_router
    router.run(f"printf %s {shlex.quote(RACER)} >/tmp/racer")
    for _ in range(3):
        assert router.run(RACE).output == "1\n"
        router.run("echo 'answered nothing 0' | tee /tmp/fwupdate-cli/job.*/end")


# While one looks at job 3, which is over, others take 4 and 5 and clear the old ones away.
LATE = PARTS + """
mkdir -p -m 700 $jobs/job.3; echo answered nothing 0 >$jobs/job.3/end
job_runs() { mv $jobs/job.3 $jobs/job.5; return 1; }
claim_job && echo won; ls $jobs
"""


def test_who_comes_late_does_not_take_a_number_that_is_free_again(fast_router):
    assert fast_router.run(LATE).output == "job.5\n"


@pytest.mark.parametrize("command", ["check", "check --json", "test /bin/busybox", "update --yes",
                                     "update --detach --yes"])
def test_what_would_disturb_a_running_update_is_refused(router, command):
    router.run("fwupdate-cli update --yes --detach")
    before = kept(router)
    refused = router.run(f"fwupdate-cli {command}", 80)
    assert refused.status == 4
    assert "'fwupdate-cli watch' follows it" in refused.output
    assert kept(router) == before


def test_while_an_image_is_installed_it_is_left_alone(fast_router):
    router = fast_router
    router.run("printf '#!/bin/sh\nsleep 600\n' >/sbin/sysupgrade")
    router.run("fwupdate-cli update --yes")
    router.wait_for("pidof sysupgrade")
    refused = router.run("fwupdate-cli update --yes")
    assert refused.status == 4 and "an image is being installed" in refused.output
    router.run("kill $(pidof sysupgrade)")
    router.wait_for("! pidof sysupgrade")
    assert router.run("fwupdate-cli check").status == 10


def test_an_update_of_somebody_else_is_met(router):
    router.open("ubus -t 60 call fwupdate update '{\"attempts\":2}'")
    await_download(router)
    refused = router.run("fwupdate-cli update --yes")
    assert refused.status == 4 and "for somebody else" in refused.output
    watching = router.open("fwupdate-cli watch", 80)
    watching.expect(" %")
    router.release()
    watched = watching.result()
    assert watched.status == 0 and "has ended" in watched.output


def test_an_update_of_somebody_else_that_cannot_be_seen_is_told(fast_router):
    router = fast_router
    router.open("ubus -t 60 call fwupdate update '{\"attempts\":2,\"delay\":30}'")
    router.wait_for("fwupdate-cli status --json | grep -q WAIT_DELAY")
    refused = router.run("fwupdate-cli update --yes")
    assert refused.status == 4 and "Already updating" in refused.output
    assert kept(router)["result"] == "busy"
    assert router.run("fwupdate-cli result").status == 4
