# SPDX-License-Identifier: ISC
"""A job is claimed, begun and read so that nothing that is killed, damaged or full hides an
answer, or makes a reader wait."""
import pytest

from kept_answer import await_installer, kept
from simulated_router import PROJECT

LOOK = f"echo {{}} | {PROJECT}/cli/fwupdate-job call status"
NO_SLEEP = "rm -f /bin/sleep; printf '#!/bin/sh\necho slept >>/tmp/slept\n' >/bin/sleep; chmod +x /bin/sleep"


def end_of_claim(router, script):
    """Runs what stands before the keeper in an update, and then kills the command."""
    router.must("mkdir -p /tmp/parts && cp /usr/share/fwupdate-cli/* /tmp/parts/ && "
                "sed 's,^parts=.*,parts=/tmp/parts,' /usr/bin/fwupdate-cli >/tmp/killed")
    router.must(f"printf '%s\\n' '{script}' >>/tmp/parts/keeper.sh")
    assert router.run("sh /tmp/killed update --yes --detach").status == 137


@pytest.mark.parametrize("script", ["start_job() { kill -KILL $$; }", "keep() { kill -KILL $$; }",
                                    "mv() { kill -KILL $$; }", "clear_others() { kill -KILL $$; }"])
def test_a_killed_claim_hides_no_answer_and_nobody_waits(fast_router, script):
    router = fast_router
    router.must("fwupdate-cli update --yes")
    await_installer(router)
    before = kept(router)
    assert before["result"] == "installing"
    end_of_claim(router, script)
    if "clear" in script:  # the keeper has begun: that is a job of its own
        router.must("fwupdate-cli watch")
        await_installer(router, 2)
        assert router.run("ls /tmp/fwupdate-cli").output == "job.1\njob.2\n"
    else:
        router.must(NO_SLEEP)
        assert kept(router) == before
        assert router.run(LOOK).json()["update"] == before
        assert router.run("test -e /tmp/slept").status == 1
        router.must("rm /bin/sleep; ln -s busybox /bin/sleep")
    assert router.run("fwupdate-cli update --yes --force").status == 0
    assert router.run("ls /tmp/fwupdate-cli | wc -l").output == "1\n", "what was left is cleared away"


def test_a_claim_that_is_being_made_counts_as_running(fast_router):
    router = fast_router
    router.must("mkdir -p -m 700 /tmp/fwupdate-cli/job.3; busybox setsid sh -c 'echo $$ >/tmp/fwupdate-cli/job.3/claim; exec sleep 600' "
                "</dev/null >/dev/null 2>&1 & until [ -s /tmp/fwupdate-cli/job.3/claim ]; do :; done")
    assert kept(router)["job"] == "running"
    assert router.run("fwupdate-cli update --yes").status == 4
    router.must("kill $(cat /tmp/fwupdate-cli/job.3/claim)")
    router.wait_for("! kill -0 $(cat /tmp/fwupdate-cli/job.3/claim)")
    assert kept(router) == {"job": "none"}


@pytest.mark.parametrize("damage", [
    ": >end", "printf 'answered installing 17' >end", "echo 'answered \";reboot;\" 1' >end", "echo answered installing x >end",
    "echo refused 1x 1795333461 >end", "echo refused 01 1795333461 >end", "echo happy now 1795333461 >end",
    ": >answer", "printf '{\"version\":\"2.1' >answer", "echo '{\"version\":\"2.1.0\",\"build' >answer", "echo '[1]' >answer",
    "echo '{\"version\":\"2.1.0\"} }' >answer", "rm answer"])
def test_a_damaged_file_is_lost_and_never_half_a_json(ended_router, damage):
    router = ended_router
    router.must(f"cp -r /tmp/fwupdate-cli/job.1 /tmp/whole; cd /tmp/fwupdate-cli/job.1 && {damage}")
    job = kept(router)
    look = router.run(LOOK).json()["update"]
    told = router.run("fwupdate-cli result")
    router.must("rm -r /tmp/fwupdate-cli/job.1; mv /tmp/whole /tmp/fwupdate-cli/job.1")
    if "} }" in damage:  # the first value is whole
        assert job["answer"] == {"version": "2.1.0"}
    else:
        assert (job["job"], job["lost"]) == ("lost", "files")
        assert told.status == 1 and "damaged: the answer is lost" in told.output
    assert look == job


@pytest.mark.parametrize("damage", ["echo x >started", ": >started", "echo 017 >started", "echo '\"' >arguments", ": >arguments",
                                    "echo yes 'a\"b' 1 2 3 >arguments", "echo no - 1 2 x >arguments", "head -c 99 /dev/urandom >arguments"])
def test_other_files_may_be_damaged(ended_router, damage):
    router = ended_router
    router.must(f"cp -r /tmp/fwupdate-cli/job.1 /tmp/whole; cd /tmp/fwupdate-cli/job.1 && {damage}")
    job = kept(router)
    router.must("rm -r /tmp/fwupdate-cli/job.1; mv /tmp/whole /tmp/fwupdate-cli/job.1")
    assert job["result"] == "installing"
    assert job["started"] == 0 or job["arguments"] == {}


@pytest.fixture(scope="module")
def ended_router(server):
    from simulated_router import Router
    with Router(server_root=server) as router:
        router.must("fwupdate-cli update --yes")
        await_installer(router)
        yield router


@pytest.mark.parametrize("mount", ["mount -t tmpfs -o ro none /tmp", "mount -t tmpfs -o nr_inodes=1 none /tmp",
                                   "mount -t tmpfs -o nr_inodes=6 none /tmp"])
def test_a_folder_that_cannot_be_made_is_no_running_update(fast_router, mount):
    router = fast_router
    router.must(mount)
    refused = router.run("fwupdate-cli update --yes --detach")
    router.must("umount /tmp")
    assert refused.status == 1
    assert "cannot be written" in refused.output and "read-only" in refused.output
    assert router.run("fwupdate-cli update --yes").status == 0
