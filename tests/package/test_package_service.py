# SPDX-License-Identifier: ISC
"""The init script under BusyBox ash, with stand-ins for the service manager (/etc/rc.common,
/sbin/procd-instance) and the real daemon."""
import pytest

from packages import install_package
from simulated_router import HELD_URL, Router, make_server, wait_until

SCRIPT = "/etc/init.d/fwupdate"
COMMAND = "/usr/sbin/fwupdate"


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    return make_server(tmp_path_factory.mktemp("server"), url=HELD_URL)


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    folder = tmp_path_factory.mktemp("installed")
    install_package("fwupdate", folder)
    return folder


@pytest.fixture
def router(server, installed):
    with Router("--no-daemon", "--bind", installed, server_root=server) as router:
        router.must(f"cp -R {installed}/. /")
        router.hold_downloads()
        yield router
        router.run(f"{SCRIPT} stop")


def lines(router, command):
    return router.run(command).output.splitlines()


def daemon(router):
    """The process number that the service manager started last."""
    return router.run("cat /var/run/services/fwupdate.pid").output.strip()


def start(router):
    assert router.run(f"{SCRIPT} start").status == 0
    router.must("ubus -t 60 wait_for fwupdate && ubus call fwupdate state")
    return daemon(router)


def worker(router):
    """The process of a download that lasts until the router releases it."""
    router.run("fwupdate-cli update --detach --yes")
    router.wait_for("fwupdate-cli status --json | grep -q progress")
    both = router.run(f"pidof {COMMAND}").output.split()
    assert len(both) == 2
    return next(number for number in both if number != daemon(router))


def await_another(router, before):
    """Another daemon serves the bus."""
    wait_until(lambda: daemon(router) != before and router.run("ubus call fwupdate state").status == 0,
               "it did not come back")


def log(router):
    return router.run("cat /var/log/procd").output


def test_describes_one_instance(router):
    start(router)
    assert lines(router, "cat /var/run/services/fwupdate") == [
        f"command {COMMAND}", "respawn 3600 5 0", "env PATH=/usr/lib/fwupdate/guard:/usr/sbin:/usr/bin:/sbin:/bin",
        "stderr 1"]
    assert lines(router, "cat /var/run/services/fwupdate.triggers") == ["reload fwupdate"]
    assert lines(router, f"sed -n 's/^START=//p' {SCRIPT}") == ["95"]


@pytest.mark.parametrize("value, command", [("1", f"{COMMAND} --debug"), ("0", COMMAND),
                                            ("", COMMAND), ("on", f"{COMMAND} --debug")])
def test_debug_is_an_option_of_the_service(router, value, command):
    router.run(f"uci set fwupdate.daemon.debug={value}")
    start(router)
    words = router.run(f"tr '\\0' ' ' </realproc/{daemon(router)}/cmdline").output.split()
    if "/qemu" in words[0]:
        words = words[2:]  # the emulator and the program's path
    assert words == command.split()


def test_a_missing_configuration_is_no_reason_not_to_start(router):
    router.run("rm /etc/config/fwupdate")
    start(router)
    assert lines(router, "head -n 1 /var/run/services/fwupdate") == [f"command {COMMAND}"]


def test_reload_restarts_only_what_has_changed(router):
    before = start(router)
    assert router.run(f"{SCRIPT} reload").status == 0
    assert daemon(router) == before
    router.run(f"uci set fwupdate.daemon.debug=1; {SCRIPT} reload")
    await_another(router, before)
    assert log(router).count("started") == 2


def test_stop_ends_the_daemon_for_good(router):
    start(router)
    assert router.run(f"{SCRIPT} stop").status == 0
    assert router.run(f"pidof {COMMAND}").status == 1


def test_the_script_is_not_taken_for_a_second_instance(router):
    """A script that is still at work has the daemon's name."""
    router.run(f"echo 'if [ -n \"$HOLD\" ]; then echo here; read -r line; fi' >>{SCRIPT}")
    held = router.open(f"exec {SCRIPT} start", columns=80, environment={"HOLD": "1"})
    held.expect("here")
    script = router.run("pidof fwupdate").output.split()
    assert len(script) == 1
    # Under its plain name the daemon takes the script for another daemon, and ends.
    assert router.run("busybox timeout 60 fwupdate").status == 0
    number = start(router)
    assert router.run("pidof fwupdate").output.split() != script
    assert router.run(f"pidof {COMMAND}").output.split() == [number]
    held.hang_up()
    held.wait()


def test_fwupdate_cli_is_not_taken_for_a_second_instance(router):
    before = start(router)
    router.run("fwupdate-cli update --detach --yes")
    watching = router.open("fwupdate-cli watch", 80)
    watching.expect("Downloading")
    assert router.run("pidof fwupdate-cli").status == 0
    router.run(f"kill -KILL {before}")
    await_another(router, before)
    assert watching.wait() == 1


def test_the_daemon_does_not_take_itself_for_another(router):
    number = start(router)
    assert router.run(f"pidof {COMMAND}").output.split() == [number]
    assert router.run(COMMAND).status == 0  # a second one ends at once
    assert router.run(f"pidof {COMMAND}").output.split() == [number]


def test_after_a_crash_in_a_download_it_comes_back(router):
    before = start(router)
    orphan = worker(router)
    router.run(f"kill -KILL {before}")
    await_another(router, before)
    assert router.run(f"kill -0 {orphan}").status != 0
    router.release()
    assert router.run("fwupdate-cli update --yes").status == 0


def test_a_restart_in_a_download_comes_back(router):
    before = start(router)
    worker(router)
    assert router.run(f"{SCRIPT} restart").status == 0
    await_another(router, before)


def orphan_that_stays(router, tries):
    """Kills the daemon in a download and holds its worker; `tries` is respawn's third value."""
    router.run(f"sed -i 's/^RESPAWN=.*/RESPAWN=\"3600 1 {tries}\"/' {SCRIPT}")
    before = start(router)
    orphan = worker(router)
    router.run(f"kill -STOP {orphan}; kill -KILL {before}")
    return before, orphan


def test_while_the_worker_lives_new_daemons_end_with_0_and_are_started_again(router):
    """Longer than the five tries that a service usually has."""
    before, orphan = orphan_that_stays(router, 0)
    router.wait_for("test $(grep -c 'ended with status 0' /var/log/procd) -ge 7")
    assert router.run("ubus call fwupdate state").status == 4
    router.run(f"kill -CONT {orphan}")
    await_another(router, before)
    assert "given up" not in log(router)


def test_with_the_usual_limit_the_daemon_would_stay_away(router):
    """Why respawn has no limit here; also shows that the stand-in knows one."""
    _, orphan = orphan_that_stays(router, 5)
    router.wait_for("grep -q 'in a crash loop, given up' /var/log/procd")
    assert log(router).count("ended with status 0") == 5
    router.run(f"kill -CONT {orphan}")
