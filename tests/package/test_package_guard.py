# SPDX-License-Identifier: ISC
"""The package fwupdate-guard: what it installs, that the daemon's service uses it, and that the
router does without it."""
import stat

import pytest

from packages import install_package
from simulated_router import Router

PACKAGE = "fwupdate-guard"
TRIAL = "/usr/lib/fwupdate/trial"


def test_what_it_installs(root):
    files = {str(path.relative_to(root)): stat.S_IMODE(path.stat().st_mode)
             for path in root.rglob("*") if path.is_file()}
    assert files == {
        "etc/init.d/fwupdate-confirm": 0o755, "usr/lib/fwupdate/guard/sysupgrade": 0o755,
        "usr/lib/fwupdate/trial": 0o755, "usr/lib/fwupdate/guard.sh": 0o644,
        "usr/lib/fwupdate/health.d/10-daemon": 0o755, "usr/lib/fwupdate/health.d/20-network": 0o755,
        "usr/lib/fwupdate/health.d/30-server": 0o755}


def test_what_it_says_about_itself(fields):
    assert fields["fwupdate-guard.DEPENDS"].split() == [
        "+usign", "+fwtool", "+jsonfilter", "+ubus", "+uci", "+uboot-envtools"]
    assert fields["fwupdate-guard.DEFAULT"] == "y if PACKAGE_fwupdate"
    assert fields["fwupdate-guard.PKGARCH"] == "all"
    # Checks of the router's own outlive a new firmware. Keys do not: one that is left out has to go.
    assert fields["fwupdate-guard.conffiles"].split() == ["/etc/fwupdate/health.d/"]


@pytest.fixture
def router(tmp_path):
    for package in ("fwupdate", PACKAGE):
        install_package(package, tmp_path)
    with Router("--no-daemon", "--bind", tmp_path) as router:
        router.must(f"cp -R {tmp_path}/. /; echo bootpart=firmware2 >/proc/cmdline; rm /sbin/reboot; "
                    "printf '#!/bin/sh\\ntouch /tmp/rebooted\\n' >/sbin/reboot; chmod 755 /sbin/reboot")
        yield router
        router.run("/etc/init.d/fwupdate-confirm stop; /etc/init.d/fwupdate stop")


def on_trial(router):
    router.must("sed -i 's/171000000/174200000/' /etc/router/board.json")
    for setting in ("upgrade_available 1", "fwupdate_before firmware", "fwupdate_trial '174200000 r1300 1 r1 - -'"):
        router.must(f"fw_setenv {setting}")


def test_the_service_starts_the_daemon_with_the_guard_in_front(router):
    router.must("/etc/init.d/fwupdate start && ubus -t 60 wait_for fwupdate && ubus call fwupdate state")
    number = router.must("cat /var/run/services/fwupdate.pid")
    environment = router.must(f"tr '\\0' '\\n' </realproc/{number}/environ").splitlines()
    path = next(line for line in environment if line.startswith("PATH="))
    assert path.split("=")[1].split(":")[0] == "/usr/lib/fwupdate/guard"
    assert router.must("ls /usr/lib/fwupdate/guard") == "sysupgrade"
    assert router.must("cat /tmp/fwupdate-guard/start") == "firmware2 firmware2 firmware2"


def test_without_a_trial_the_second_service_does_not_run(router):
    router.must("/etc/init.d/fwupdate start; /etc/init.d/fwupdate-confirm start")
    router.must("! test -e /var/run/services/fwupdate-confirm")


def test_on_trial_the_second_service_confirms_and_ends(router):
    on_trial(router)
    router.must("/etc/init.d/fwupdate start; /etc/init.d/fwupdate-confirm start")
    router.wait_for("test \"$(fw_printenv -n upgrade_available)\" = 0")
    assert router.must("fw_printenv -n fwupdate_outcome") == "confirmed 174200000 r1300"
    router.wait_for("test ! -e /var/run/services/fwupdate-confirm.supervisor")


@pytest.mark.parametrize("missing", [TRIAL, "/etc/init.d/fwupdate-confirm"])
def test_a_trial_that_nobody_can_confirm_goes_back(router, missing):
    on_trial(router)
    router.must(f"rm {missing}; sed -i 's/^UNCONFIRMED=.*/UNCONFIRMED=0/' /etc/init.d/fwupdate; /etc/init.d/fwupdate start")
    router.wait_for("test -e /tmp/rebooted")
    assert [router.must(f"fw_printenv -n {name}") for name in
            ("bootpart", "upgrade_available", "fwupdate_outcome", "fwupdate_refused")] == [
                "firmware", "0", "taken-back 174200000 confirm r1300", "174200000"]


@pytest.mark.parametrize("prepare", ["true", "fw_setenv upgrade_available 1", "fw_setenv fwupdate_trial 'over r1300 1 r1 - -'; fw_setenv upgrade_available 1"])
def test_without_the_package_and_a_trial_of_ours_nothing_goes_back(router, prepare):
    router.must(f"rm -r /usr/lib/fwupdate /etc/init.d/fwupdate-confirm; {prepare};"
                "sed -i 's/^UNCONFIRMED=.*/UNCONFIRMED=0/; s/^go_back() {/&\\n\\ttouch \\/tmp\\/went/' /etc/init.d/fwupdate")
    before = router.must("fw_printenv")
    router.must("/etc/init.d/fwupdate start && ubus -t 60 wait_for fwupdate && ubus call fwupdate check")
    router.must("! test -e /tmp/went")
    assert router.must("fw_printenv") == before


def test_without_the_package_an_update_is_what_it_was(router):
    router.must("rm -r /usr/lib/fwupdate; /etc/init.d/fwupdate start && ubus -t 60 wait_for fwupdate")
    assert router.must("ls /usr/lib/fwupdate 2>/dev/null | wc -l") == "0"
    assert router.must("PATH=/usr/lib/fwupdate/guard:/usr/sbin:/usr/bin:/sbin:/bin sh -c 'command -v sysupgrade'") == "/sbin/sysupgrade"
