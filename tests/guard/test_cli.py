# SPDX-License-Identifier: ISC
"""What fwupdate-cli, and the object that the page asks, say about the guard; whole updates."""
import json
import zlib

import pytest

from conftest import GUARD, IMAGE, TRIAL
from signed_images import signed, uimage, with_metadata
from simulated_router import PROJECT, make_server
from test_trial import CONFIRMED, begin, rebooted, state, taken_back


def job_status(guard):
    return json.loads(guard.must(f"{PROJECT}/cli/fwupdate-job call status </dev/null"))


@pytest.fixture
def daemon(guard):
    """The package's service, with the guard in front; a server whose image a test chooses."""
    if guard.run("test -e /var/run/services/fwupdate.pid").status != 0:
        guard.router.wait_for("kill $(pidof /usr/sbin/fwupdate) 2>/dev/null; ! pidof /usr/sbin/fwupdate")
    guard.must("/etc/init.d/fwupdate start; ubus -t 60 wait_for fwupdate; ubus call fwupdate state")

    def offer(image, build="174200000"):
        make_server(guard.server, size=10, build=build, version="r1300")
        (guard.server / "firmware.bin").write_bytes(image)
    return offer


def update(guard, options=""):
    return guard.run(f"fwupdate-cli update --yes --partition firmware2 {options}")


def test_a_signed_firmware_goes_all_the_way(guard, daemon):
    daemon(guard.good())
    assert update(guard).status == 0
    guard.router.wait_for("test -e /var/log/sysupgrade")
    assert guard.installed() == ["sysupgrade -F /tmp/fwupdate-guard/image"]
    assert guard.variable("fwupdate_trial") == "174200000 r1300 171000000 r1234 -,network.interface.wan WAIT_DELAY"
    assert guard.variables("upgrade_available", "bootpart") == ["1", "firmware2"]


NO_WAY_BACK = "It replaces the firmware that runs, so there is no way back to that one."


@pytest.mark.parametrize("partitions, runs, bootpart, written", [
    ("firmware firmware2", "firmware", "firmware", "firmware2"),
    ("firmware firmware2", "firmware2", "firmware2", "firmware"),
    ("firmware firmware2", "firmware", "firmware2", "firmware2"),  # the boot loader fell back
    ("firmware", "firmware", "firmware", "firmware"),
    ("firmware2 firmware3", "firmware", "firmware", "firmware"),
    ("", "firmware", "firmware", "firmware")])
def test_an_update_goes_into_the_partition_that_does_not_run(guard, daemon, partitions, runs, bootpart, written):
    """Where both are known; otherwise over what runs, and that is said before."""
    guard.must(f"uci set fwupdate.guard.partitions='{partitions}'; fw_setenv bootpart {bootpart}")
    guard.restart(told=runs)
    daemon(guard.good())
    result = guard.run("fwupdate-cli update --yes")
    assert result.status == 0 and f"The partition '{written}' will be written." in result.output
    guard.router.wait_for("test -e /var/log/sysupgrade")
    assert guard.variable("bootpart") == written
    has_way_back = written != runs
    assert guard.variable("upgrade_available") == ("1" if has_way_back else "")
    assert (NO_WAY_BACK in result.output) != has_way_back


def test_an_unsigned_one_is_refused_and_result_says_so(guard, daemon):
    daemon(with_metadata(uimage(guard.body())))
    assert update(guard).status == 0  # the daemon has answered; the guard comes after it
    guard.router.wait_for("test -e /tmp/fwupdate-guard/refused")
    result = guard.run("fwupdate-cli result")
    assert result.status == 1
    assert "Refused: not signed. Nothing was installed." in result.output
    assert "being installed" not in result.output
    kept = json.loads(guard.run("fwupdate-cli result --json").output)
    assert kept["guard"]["refused"]["reason"] == "not signed" and kept["guard"]["refused"]["time"] >= kept["started"]
    assert job_status(guard)["guard"] == kept["guard"]
    guard.assert_refused("not signed")
    assert "The last image was refused: not signed." in guard.must("fwupdate-cli status")


def test_force_reaches_the_guard_and_only_from_this_update(guard, daemon):
    guard.must("fw_setenv fwupdate_refused 174200000")
    daemon(guard.good())
    assert update(guard).status == 0
    guard.router.wait_for("test -e /tmp/fwupdate-guard/refused")
    guard.assert_refused("build 174200000 was taken back before")
    assert update(guard, "--force").status == 0
    guard.router.wait_for("test -e /var/log/sysupgrade")
    assert not guard.file("force")


def test_a_forced_update_that_fails_leaves_no_permission_behind(guard, daemon):
    daemon(b"no firmware")
    assert update(guard, "--force --attempts 2").status == 1
    guard.must("! test -e /tmp/fwupdate-guard/force")


# --- Without an update of this start

@pytest.mark.parametrize("outcome, text, fields", [
    ("confirmed 174200000 r1300", "Build 174200000 (r1300) was tried and confirmed.",
     {"result": "confirmed", "build": "174200000", "version": "r1300"}),
    ("taken-back 174200000 30-server r1300",
     "Build 174200000 was tried and taken back: the update server could not be reached (30-server)",
     {"result": "taken-back", "build": "174200000", "version": "r1300", "check": "30-server"}),
    ("taken-back 174200000 boot r1300", "Build 174200000 was tried and taken back: it did not start (boot)",
     {"result": "taken-back", "build": "174200000", "version": "r1300", "check": "boot"}),
    ("taken-back 174200000 50-vpn r1300",
     "Build 174200000 was tried and taken back: a check of this router's own failed (50-vpn)",
     {"result": "taken-back", "build": "174200000", "version": "r1300", "check": "50-vpn"}),
])
def test_what_came_of_the_last_trial(guard, outcome, text, fields):
    guard.must(f"rm -rf /tmp/fwupdate-cli; fw_setenv fwupdate_outcome '{outcome}'")
    guard.restart()
    assert text in guard.run("fwupdate-cli result").output.splitlines()
    assert text in guard.run("fwupdate-cli status").output.splitlines()
    assert job_status(guard)["guard"] == {"outcome": fields}
    assert json.loads(guard.run("fwupdate-cli result --json").output)["guard"] == {"outcome": fields}


@pytest.mark.parametrize("name, content", [
    ("refused", "x"), ("refused", "-1 text"), ("refused", ""), ("trial", "soon"), ("trial", ""), ("outcome", "what 1 2"),
    ("outcome", ""), ("outcome", "taken-back 1;2 x y")])
def test_what_the_guard_cannot_have_written_is_nothing(guard, name, content):
    guard.must(f"rm -rf /tmp/fwupdate-cli; rm -f /tmp/fwupdate-guard/outcome; printf '%s\\n' '{content}' >/tmp/fwupdate-guard/{name}")
    assert job_status(guard)["guard"] == {}


def test_quotes_in_a_reason_do_not_end_the_json(guard):
    guard.must("rm -f /tmp/fwupdate-guard/outcome; printf '%s\\n' '17 a \"b\\' >/tmp/fwupdate-guard/refused")
    assert job_status(guard)["guard"] == {"refused": {"time": 17, "reason": "see logread"}}


def test_a_trial_shows_its_checks_and_its_time(guard):
    begin(guard)
    guard.must("read -r up _ </proc/uptime; printf '%s\\n' $((${up%.*} + 125)) '10-daemon ok' '30-server waiting' >/tmp/fwupdate-guard/trial")
    lines = guard.must("fwupdate-cli status").splitlines()
    assert any(line.startswith("The firmware that runs is on trial; without all checks it goes back in 2 min ")
               for line in lines)
    assert lines[-2:] == ["10-daemon ok", "30-server waiting"]
    trial = job_status(guard)["guard"]["trial"]
    assert trial["checks"] == {"10-daemon": True, "30-server": False} and 100 < trial["left"] <= 125


# --- By hand

def test_confirm_ends_the_trial(guard):
    begin(guard)
    assert "The firmware that runs is confirmed." in guard.must("fwupdate-cli confirm")
    assert state(guard) == CONFIRMED
    assert "Nothing is on trial." in guard.must("fwupdate-cli confirm")


@pytest.mark.parametrize("command", ["confirm", "rollback --yes"])
def test_another_updaters_trial_is_not_ended(guard, command):
    begin(guard)
    guard.must(f"{TRIAL} confirm; fw_setenv upgrade_available 1")
    result = guard.run(f"fwupdate-cli {command}")
    assert result.status == 1 and "the trial is another updater's" in result.output
    assert guard.variables("upgrade_available", "bootpart") == ["1", "firmware2"] and not rebooted(guard)


def flash(guard, image):
    """What is in the partition of before, mtd2."""
    (guard.folder / "mtd2").write_bytes(image + b"\xff" * 1000)
    guard.must(f"cp {guard.folder}/mtd2 /dev/mtd2")


@pytest.mark.parametrize("confirmed", [False, True])
def test_rollback_names_what_it_goes_back_to(guard, confirmed):
    flash(guard, uimage(guard.body(70_000)))
    begin(guard)
    if confirmed:
        guard.must(f"{TRIAL} confirm")
    asked = guard.router.open("fwupdate-cli rollback", columns=100)
    asked.expect("Go back to the firmware in 'firmware' (r1234, build 171000000)? The router restarts. [y/N]")
    asked.type("n\n")
    assert asked.wait() == 0 and not rebooted(guard)
    assert guard.run("fwupdate-cli rollback --yes").status == 0
    assert rebooted(guard)
    assert state(guard) == taken_back("hand")


def changed(image, place):
    return image[:place] + bytes([image[place] ^ 1]) + image[place + 1:]


@pytest.mark.parametrize("place", [0, 5, 40, 64, 70_000])
def test_rollback_wants_a_whole_firmware(guard, place):
    flash(guard, changed(uimage(guard.body(70_000)), place))
    begin(guard)
    before = guard.must("fw_printenv")
    result = guard.run("fwupdate-cli rollback --yes")
    assert result.status == 1 and "there is no whole firmware in 'firmware'" in result.output
    assert guard.must("fw_printenv") == before and not rebooted(guard)


def test_rollback_without_an_update_before(guard):
    result = guard.run("fwupdate-cli rollback --yes")
    assert result.status == 1 and "no update was made that could be taken back" in result.output
    guard.must("fw_setenv fwupdate_before firmware")
    result = guard.run("fwupdate-cli rollback --yes")
    assert result.status == 1 and "runs already" in result.output
    assert not rebooted(guard)


@pytest.mark.parametrize("command", ["confirm", "rollback --yes"])
def test_without_the_package_there_is_nothing_by_hand(guard, command):
    guard.must("mkdir -p /root/backup/usr/lib/fwupdate; mv /usr/lib/fwupdate/trial /root/backup/usr/lib/fwupdate/")
    result = guard.run(f"fwupdate-cli {command}")
    assert result.status == 1 and "fwupdate-guard" in result.output


# --- A fwtool that never ends

@pytest.fixture
def hanging(guard, daemon):
    """The sandbox's processes are in /realproc; two minutes are three seconds here, and fifteen are two."""
    guard.must("mkdir -p /root/backup/usr/share/fwupdate-cli; cp /usr/share/fwupdate-cli/guard.sh /usr/share/fwupdate-cli/bus.sh /root/backup/usr/share/fwupdate-cli/;"
               "sed -i 's/^state_limit=15/state_limit=2/' /usr/share/fwupdate-cli/bus.sh;"
               "sed -i 's/^patience_with_fwtool=.*/patience_with_fwtool=3/; s|/proc/\\([[$]\\)|/realproc/\\1|; s|\"/proc/|\"/realproc/|' "
               "/usr/share/fwupdate-cli/guard.sh")
    guard.replace("/usr/bin/fwtool", "while :; do read -r line </proc/uptime; done")
    daemon(guard.good())


def test_a_fwtool_that_hangs_is_ended_and_the_daemon_answers(guard, hanging):
    result = update(guard, "--attempts 2")
    assert result.status == 1 and "Error on checking firmware" in result.output
    assert guard.run("pidof fwtool").status == 1


def test_one_that_a_person_runs_is_left_alone(guard, hanging):
    guard.must("sh -c 'fwtool; :' >/dev/null 2>&1 &")
    guard.router.wait_for("pidof fwtool")
    found = guard.must(". /usr/share/fwupdate-cli/guard.sh; patience_with_fwtool=0; find_hanging_fwtool; echo [$hanging]")
    guard.must("kill $(pidof fwtool)")
    assert found == "[]"


def test_one_that_hangs_for_somebody_else_is_named(guard, hanging):
    guard.put(guard.good())
    guard.must(f"ubus -t 60 call fwupdate test '{{\"file\":\"{IMAGE}\"}}' >/dev/null 2>&1 &")
    told = guard.router.wait_for("fwupdate-cli status 2>&1 | grep 'does not come to an end with the image'")
    process = guard.must("pidof fwtool")
    assert f"fwtool (process {process}) " in told and f"'kill {process}'" in told
    faults = [line for line in guard.run("fwupdate-cli doctor").output.splitlines() if line.startswith("fault")]
    assert f"fault  daemon: fwtool (process {process}) does not come to an end with an image" in faults
    guard.must(f"kill {process}; ubus -t 30 call fwupdate state")
