# SPDX-License-Identifier: ISC
"""Whether a new firmware stays: what is decided at a start, by the checks, and by hand."""
import pytest

from conftest import TRIAL

RECORD = "174200000 r1300 171000000 r1234 -,network.interface.wan XML_DONE"
OVER = RECORD.replace("174200000", "over", 1)
END = ("upgrade_available", "bootcount", "bootpart", "fwupdate_outcome", "fwupdate_refused")


def begin(guard, told="firmware2", count=1, record=RECORD, runs="174200000", **variables):
    """The first start behind an installation into firmware2."""
    values = {"bootpart": "firmware2", "fwupdate_before": "firmware", "fwupdate_trial": record,
              "bootcount": count, "upgrade_available": 1, **variables}
    for name, value in values.items():
        guard.must(f"fw_setenv {name} '{value}'")
    revision = "r1300" if runs == "174200000" else "r1234"
    guard.must(f"sed -i 's/171000000/{runs}/; s/r1234/{revision}/' /etc/router/board.json")
    guard.restart(told)


def state(guard):
    return guard.variables(*END)


CONFIRMED = ["0", "0", "firmware2", "confirmed 174200000 r1300", ""]


def taken_back(check, refused="174200000"):
    return ["0", "0", "firmware", f"taken-back 174200000 {check} r1300", refused]


def rebooted(guard):
    return guard.run("test -e /var/log/reboot").status == 0


def watch(guard, seconds=1):
    guard.must(f"uci set fwupdate.guard.health_time={seconds}")
    return guard.run(f"{TRIAL} watch").status


# --- The checks

def test_a_firmware_that_is_well_is_confirmed(guard):
    begin(guard, fwupdate_refused="171500000")
    assert guard.run(f"{TRIAL} pending").status == 0
    assert state(guard)[0] == "1"
    watch(guard)
    assert state(guard) == CONFIRMED
    assert guard.file("outcome") == "confirmed 174200000 r1300"
    assert guard.file("trial") == "" and not rebooted(guard)
    assert guard.log()[-1] == "confirmed 174200000 r1300"
    assert guard.run(f"{TRIAL} pending").status == 1


def health(guard, name, script="exit 1", folder="/etc/fwupdate/health.d"):
    guard.must(f"mkdir -p {folder}; printf '%s\\n' '#!/bin/sh' {script!r} >{folder}/{name}; chmod 755 {folder}/{name}")


def test_one_check_that_fails_takes_it_back_and_is_named(guard):
    health(guard, "50-ours")
    health(guard, "60-later")
    begin(guard)
    watch(guard)
    assert state(guard) == taken_back("50-ours")
    assert guard.file("outcome") == "taken-back 174200000 50-ours r1300"
    assert rebooted(guard)


def test_all_have_to_succeed_in_one_round(guard):
    """Each of two succeeds every other time, never both."""
    for name, first in (("50-one", "exit 0"), ("51-two", "exit 1")):
        other = "exit 1" if first == "exit 0" else "exit 0"
        health(guard, name, f"mkdir /tmp/fwupdate-{name} 2>/dev/null && {first}; rmdir /tmp/fwupdate-{name}; {other}")
    begin(guard)
    watch(guard, 3)
    assert rebooted(guard) and state(guard)[3].startswith("taken-back 174200000 5")


def test_a_check_that_comes_round_in_time_is_enough(guard):
    health(guard, "50-late", "[ -e /tmp/fwupdate-late ] || { touch /tmp/fwupdate-late; exit 1; }")
    begin(guard)
    watch(guard, 60)
    assert state(guard) == CONFIRMED


def test_a_check_that_hangs_is_ended(guard):
    guard.must("mkdir -p /root/backup/usr/lib/fwupdate; cp /usr/lib/fwupdate/guard.sh /root/backup/usr/lib/fwupdate/;"
               "sed -i 's/sleep 60/sleep 3/' /usr/lib/fwupdate/guard.sh")
    health(guard, "50-hangs", "while :; do :; done")
    begin(guard)
    watch(guard)
    assert state(guard) == taken_back("50-hangs")


def test_while_it_waits_it_says_what_for(guard):
    health(guard, "50-wait", "until [ -e /tmp/fwupdate-go ]; do sleep 0.1; done; [ -e /tmp/fwupdate-well ]")
    begin(guard)
    guard.must(f"uci set fwupdate.guard.health_time=500; {TRIAL} watch >/dev/null 2>&1 &")
    guard.must("touch /tmp/fwupdate-go")
    guard.router.wait_for("grep -q 50-wait /tmp/fwupdate-guard/trial")
    end, *lines = guard.file("trial").splitlines()
    assert lines == ["10-daemon ok", "20-network ok", "30-server ok", "50-wait waiting"]
    left = int(end) - float(guard.must("cut -d ' ' -f 1 /proc/uptime"))
    assert 300 < left <= 500
    guard.must("touch /tmp/fwupdate-well")
    guard.router.wait_for("grep -q confirmed /tmp/fwupdate-guard/outcome")


def test_a_watch_that_was_killed_goes_on_with_the_same_end(guard):
    health(guard, "50-ours")
    begin(guard)
    guard.must("echo 1 >/tmp/fwupdate-guard/trial")
    watch(guard, 99999)
    assert state(guard) == taken_back("50-ours")


def test_without_any_check_nothing_is_confirmed(guard):
    begin(guard)
    guard.must("mkdir -p /root/backup/usr/lib/fwupdate; mv /usr/lib/fwupdate/health.d /root/backup-health")
    watch(guard)
    guard.must("mv /root/backup-health /usr/lib/fwupdate/health.d")
    assert state(guard) == taken_back("none")


def test_what_cannot_be_run_is_no_check(guard):
    health(guard, "50-ours")
    guard.must("chmod 644 /etc/fwupdate/health.d/50-ours")
    begin(guard)
    watch(guard)
    assert state(guard) == CONFIRMED


def test_without_a_daemon_it_is_taken_back(guard):
    begin(guard)
    guard.replace("/usr/bin/ubus", 'case "$*" in *fwupdate*state*) exit 4 ;; esac; exec /root/backup/usr/bin/ubus "$@"')
    watch(guard)
    assert state(guard) == taken_back("10-daemon")


@pytest.mark.parametrize("before, stays", [("-,network.interface.wan", False), ("-", True), ("-,network.interface.gone", False)])
def test_only_an_interface_that_was_up_has_to_be_up(guard, before, stays):
    guard.must("cp /etc/router/wan.json /root/; sed -i 's/\"up\": *true/\"up\": false/' /etc/router/wan.json")
    begin(guard, record=f"174200000 r1300 171000000 r1234 {before} -")
    watch(guard)
    guard.must("mv /root/wan.json /etc/router/")
    assert state(guard) == (CONFIRMED if stays else taken_back("20-network"))


@pytest.mark.parametrize("before, stays", [("WAIT_DELAY", False), ("XML_DONE", False), ("NONE", True), ("-", True)])
def test_only_a_server_that_was_reached_has_to_answer(guard, before, stays):
    guard.must("cp /etc/config/system /root/; uci set system.@system[0].fwupdate_xml_url=http://192.0.2.1/none.xml")
    begin(guard, record=f"174200000 r1300 171000000 r1234 - {before}")
    watch(guard)
    guard.must("mv /root/system /etc/config/")
    assert state(guard) == (CONFIRMED if stays else taken_back("30-server"))


@pytest.mark.parametrize("value", ["", "0", "-5", "soon"])
def test_a_wrong_health_time_is_five_minutes(guard, value):
    begin(guard)
    health(guard, "50-ours", "[ -e /tmp/fwupdate-well ] || { touch /tmp/fwupdate-well; exit 1; }")
    guard.must(f"uci set fwupdate.guard.health_time={value}")
    guard.must(f"{TRIAL} watch >/dev/null 2>&1 &")
    guard.router.wait_for("grep -q . /tmp/fwupdate-guard/trial")
    left = int(guard.file("trial").splitlines()[0]) - float(guard.must("cut -d ' ' -f 1 /proc/uptime"))
    assert 200 < left <= 300
    guard.router.wait_for("grep -q confirmed /tmp/fwupdate-guard/outcome")


# --- A start

def test_a_start_without_a_trial_tells_what_came_of_the_last(guard):
    guard.must("fw_setenv fwupdate_outcome 'confirmed 1 r1'")
    guard.restart()
    assert guard.file("outcome") == "confirmed 1 r1"
    assert guard.file("start") == "firmware firmware firmware"
    guard.restart(told="")
    assert guard.file("start") == "firmware - firmware"


def test_the_record_of_a_start_is_made_once(guard):
    guard.must(f"fw_setenv bootpart firmware2; {TRIAL} start")
    assert guard.file("start") == "firmware firmware firmware"


def test_a_new_firmware_is_not_decided_at_its_start(guard):
    begin(guard)
    assert state(guard) == ["1", "1", "firmware2", "", ""]


@pytest.mark.parametrize("told, count, check, refused", [
    ("firmware", 4, "boot", "174200000"),        # altbootcmd ran
    ("firmware", 1, "installation", ""),         # not written whole
    ("", 4, "boot", "174200000"),
    ("", 1, "installation", ""),
    ("firmware2", 4, "boot", "174200000"),       # whatever it says, it has given up
])
def test_the_old_firmware_ends_the_trial(guard, told, count, check, refused):
    begin(guard, told, count, runs="171000000")
    assert state(guard) == taken_back(check, refused)
    assert guard.file("outcome") == f"taken-back 174200000 {check} r1300"
    assert guard.run(f"{TRIAL} pending").status == 1
    assert guard.run(f"{TRIAL} watch").status == 1
    assert not rebooted(guard)


@pytest.mark.parametrize("told", ["firmware", ""])
def test_after_a_return_bootpart_is_put_back_to_the_old_firmware(guard, told):
    """The boot loader took the old one without writing that down."""
    begin(guard, told, 4, runs="171000000")
    guard.install(guard.body())
    assert guard.reason() == "not signed"
    assert guard.variable("bootpart") == "firmware"



def test_a_return_that_was_cut_off_keeps_its_reason(guard):
    begin(guard, "firmware", 1, runs="171000000", fwupdate_outcome="taken-back 174200000 30-server r1300",
          fwupdate_refused="174200000", bootpart="firmware")
    assert state(guard) == taken_back("30-server")


def test_the_outcome_of_another_build_is_not_kept(guard):
    begin(guard, "firmware", 1, runs="171000000", fwupdate_outcome="taken-back 174100000 30-server r1300")
    assert state(guard) == taken_back("installation", "")


def never(guard):
    """No trial was ever made here."""


def confirmed(guard):
    begin(guard)
    guard.must(f"{TRIAL} confirm")


def returned(guard):
    begin(guard, "firmware", 4, runs="171000000")


def given_up(guard):
    guard.replace("/sbin/sysupgrade", "exit 1")
    guard.install(guard.good())


def cut_off(guard):
    """Before the installation's last write but one; the next start finds it."""
    guard.must(f"fw_setenv fwupdate_before firmware; fw_setenv fwupdate_trial '{RECORD}'")
    guard.restart()


@pytest.mark.parametrize("ours", [never, confirmed, returned, given_up, cut_off])
@pytest.mark.parametrize("told", ["firmware", "firmware2"])
def test_another_updaters_trial_is_not_ours(guard, ours, told):
    """Whatever came of the last one of ours."""
    ours(guard)
    before = {"bootpart": told, "upgrade_available": "1", "bootcount": "9"}
    guard.must("; ".join(f"fw_setenv {name} {value}" for name, value in before.items()))
    guard.restart(told)
    names = (*before, "fwupdate_outcome", "fwupdate_refused")
    held = guard.variables(*names)
    assert held[:3] == list(before.values())
    assert [guard.run(f"{TRIAL} {verb}").status for verb in ("pending", "watch", "confirm", "back")] == [1] * 4
    guard.install(guard.good(build="174200001"), {"firmware": "firmware2", "firmware2": "firmware"}[told])
    assert guard.reason() == "the firmware that runs is on trial"
    assert guard.variables(*names) == held


def test_what_was_in_the_partition_before_is_not_confirmed(guard):
    """The power was cut before the new firmware was written; another whole one is there."""
    begin(guard, told="firmware2", runs="165000000")
    watch(guard)
    assert state(guard) == taken_back("installation", "")


def test_a_build_that_is_tried_again_keeps_no_reason_of_before(guard):
    guard.must("fw_setenv fwupdate_outcome 'taken-back 174200000 30-server r1300'; fw_setenv fwupdate_refused 174200000;"
               "touch /tmp/fwupdate-guard/force")
    guard.install(guard.good())
    guard.must("fw_setenv bootcount 4")
    guard.restart()
    assert state(guard) == taken_back("boot")


# --- By hand


def test_what_cannot_be_written_is_not_confirmed(guard):
    begin(guard)
    guard.replace("/usr/sbin/fw_setenv", "exit 1")
    result = guard.run("fwupdate-cli confirm")
    assert result.status == 1 and "the boot environment cannot be written" in result.output
    assert guard.file("outcome") == ""


def test_back_by_hand(guard):
    begin(guard)
    guard.run(f"{TRIAL} back")
    assert state(guard) == taken_back("hand")
    assert rebooted(guard)


@pytest.mark.parametrize("verb", ["", "help", "watch", "confirm", "back", "pending"])
def test_without_a_trial_there_is_nothing_to_decide(guard, verb):
    before = guard.must("fw_printenv")
    assert guard.run(f"{TRIAL} {verb}").status == 1
    assert guard.must("fw_printenv") == before


# --- Without the service

def test_who_waits_to_go_back_does_not_hold_up_the_service(guard):
    """What locks a service is a descriptor of its script's, number 1000."""
    guard.must("/etc/init.d/fwupdate start")
    begin(guard)
    guard.must("mkdir -p /root/backup/etc/init.d; cp /etc/init.d/fwupdate /root/backup/etc/init.d/;"
               "sed -i 's/^UNCONFIRMED=.*/UNCONFIRMED=999/' /etc/init.d/fwupdate")
    guard.remove(TRIAL)
    guard.must("exec 1000>/tmp/fwupdate-service; flock 1000; /etc/init.d/fwupdate start")
    assert guard.run("flock -n /tmp/fwupdate-service true").status == 0
