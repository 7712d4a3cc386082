# SPDX-License-Identifier: ISC
"""The guard on the virtual router, from the bus call to the firmware that answers at the end:
an attacker in the update server's place, and firmware that does not work."""
import json
import os
import pathlib
import random
import shutil
import struct
import time
import zlib

import machine
import pytest
from conftest import offer
from flash import (ENVIRONMENT, ENVIRONMENT_SIZE, HEADER, PARTITIONS, environment_part, logged_writes,
                   read_environment, set_variable)
from signed_images import METADATA, SIGNATURE, Key, chunk, metadata, signed, with_metadata
from steps import begin_update, facts, update

WORK = pathlib.Path(machine.WORK)
GOOD = WORK / "guarded-r1300.bin"
OLD = {"revision": "r1234", "booted": "firmware", "bootpart": "firmware"}
NEW = {"revision": "r1300", "booted": "firmware2", "bootpart": "firmware2"}
CUTS = int(os.environ.get("FWUPDATE_VM_CUTS", "4"))  # each takes a minute or two


@pytest.fixture
def guarded(tmp_path):
    """guarded(image): a router with the guard, switched on; its flash is guarded.flash."""
    machines = []

    def switch_on(image=GOOD, wait=True):
        server = offer(tmp_path / "server", image)
        if not switch_on.flash.exists():
            shutil.copyfile(WORK / "guarded-flash", switch_on.flash)
        (tmp_path / "writes").touch()
        machines.append(machine.Machine(tmp_path, switch_on.flash, server, write_log=tmp_path / "writes"))
        if wait:
            machines[-1].wait_up()
        return machines[-1]
    switch_on.flash = tmp_path / "flash"
    switch_on.server = tmp_path / "server"
    yield switch_on
    for each in machines:
        if each.process.poll() is None:
            each.cut_power()
    switch_on.flash.unlink(missing_ok=True)


def variable(router, name):
    return router.run(f"fw_printenv -n {name} 2>/dev/null")[1].strip()


def outcome(router):
    return variable(router, "fwupdate_outcome")


def await_outcome(router):
    """Whatever restarts lie between: the trial is over, and the router is up."""
    end = time.monotonic() + 3 * machine.PATIENCE
    while time.monotonic() < end:
        try:
            if outcome(router) and variable(router, "upgrade_available") == "0":
                return outcome(router)
            router.output("ubus -t 5 wait_for fwupdate || :")
        except machine.Restarted:
            router.wait_up()
    raise AssertionError("the trial has no end")


# --- What a power cut would have left, at every moment of a test that is over

def whole(flash, partition):
    place = PARTITIONS[partition]
    header = bytes(flash[place:place + 64])
    fields = list(struct.unpack(HEADER, header))
    if fields[0] != 0x27051956 or fields[3] > 0x1800000:
        return False
    checksum, fields[1] = fields[1], 0
    return zlib.crc32(struct.pack(HEADER, *fields)) == checksum and \
        zlib.crc32(flash[place + 64:place + 64 + fields[3]]) == fields[6]


def chosen(variables, is_whole):
    """The partition that the boot loader starts, or None."""
    wanted = variables["bootpart"]
    if variables.get("upgrade_available") == "1" and \
            int(variables.get("bootcount") or 0) + 1 > int(variables["bootlimit"]):
        wanted = variables["fwupdate_before"]
    other = "firmware" if wanted == "firmware2" else "firmware2"
    return next((name for name in (wanted, other) if is_whole[name]), None)


def check_every_moment(log, folder, end):
    """Replays what was written to the flash. In the environment each write counts, and half of
    it; of the writes into the partitions 40 by chance."""
    flash = bytearray((WORK / "guarded-flash").read_bytes())
    writes = list(logged_writes(log))
    seed = int(os.environ.get("FWUPDATE_VM_SEED", time.time()))
    of_partitions = [number for number, (place, _) in enumerate(writes) if place >= PARTITIONS["firmware"]]
    print(f"FWUPDATE_VM_SEED={seed}")
    looked_at = set(random.Random(seed).sample(of_partitions, 40)) | {of_partitions[-1]}
    is_whole = {name: whole(flash, name) for name in PARTITIONS}
    touched, moments, before = False, 0, None
    for number, (place, data) in enumerate(writes):
        in_environment = ENVIRONMENT <= place < ENVIRONMENT + ENVIRONMENT_SIZE
        for size in (len(data) // 2, len(data)):
            flash[place:place + size] = data[:size]
            touched = touched or not in_environment
            if not in_environment and number not in looked_at:
                continue
            if touched:
                is_whole["firmware2"] = whole(flash, "firmware2")
                touched = not in_environment
            variables = read_environment(bytes(flash[ENVIRONMENT:ENVIRONMENT + ENVIRONMENT_SIZE]), folder)
            assert variables is not None, f"the environment is lost at write {number}"
            moments += 1
            starts = chosen(variables, is_whole)
            outcome = variables.get("fwupdate_outcome", "")
            # The old firmware is never lost, and the new one starts on trial or confirmed only.
            assert is_whole["firmware"] and starts
            if starts == "firmware2" and variables.get("fwupdate_trial"):
                on_trial = variables.get("upgrade_available") == "1" and variables["fwupdate_before"] == "firmware"
                assert on_trial or outcome.startswith("confirmed"), (number, variables)
            if variables.get("upgrade_available") == "0" and outcome.startswith("taken-back"):
                assert starts == "firmware"
            before = starts
    assert moments > 200 and before == end
    print(f"{moments} moments, {len(writes)} writes")


# --- Let in

def test_signed_firmware_is_installed_and_confirmed(guarded, tmp_path):
    router = guarded()
    router.output("fwupdate-cli update --yes")
    router.wait_console("reboot: Restarting system")
    begin = time.monotonic()
    router.wait_up()
    assert facts(router) == NEW
    assert await_outcome(router) == "confirmed 174200000 r1300"
    print(f"confirmed {time.monotonic() - begin:.0f} s after the restart")
    assert "confirmed" in router.output("fwupdate-cli result || :")
    router.quit()
    check_every_moment(tmp_path / "writes", tmp_path, "firmware2")


def test_single_firmware_router_is_told_that_there_is_no_way_back(guarded):
    router = guarded()
    assert update(router, "firmware")["error_code"] == "0"
    router.wait_console("installer: on tmpfs, writing [0-9]+ bytes into firmware\\.")
    router.wait_up()
    assert facts(router) == {"revision": "r1300", "booted": "firmware", "bootpart": "firmware"}
    assert variable(router, "upgrade_available") != "1"


# --- An attacker in the server's place, with everything but the key

def forged():
    """name -> (image, reason)"""
    keys = pathlib.Path(WORK / "keys")
    maker, other = Key(keys, "maker"), Key(keys, "other")
    good = GOOD.read_bytes()
    size = int.from_bytes(good[-4:], "big")
    image = good[:-size]                       # what is signed
    body = image[:-int.from_bytes(image[-4:], "big")]
    signature = good[-size:-16]
    older = (WORK / "guarded-r1100.bin").read_bytes()
    replaced = body + chunk(body, METADATA, metadata(build="999999999"))
    no_build = with_metadata(body, build=None)
    flipped = bytearray(good)
    flipped[len(image) * 3 // 4] ^= 1
    head = bytearray(good)
    head[20_000] ^= 1                          # in the kernel's place
    unsigned, ours = "not signed", "not signed by a key of this router"
    return {
        "no signature": (image, unsigned),
        "signed by another key": (signed(image, other), ours),
        "the signature of the older firmware": (image + chunk(image, SIGNATURE, older[-size:-16]), ours),
        "one bit of the file system": (bytes(flipped), ours),
        "one bit of the kernel": (bytes(head), ours),
        "the signature twice": (good + chunk(good, SIGNATURE, signature), ours),
        "the whole signed again by another key": (signed(good, other), ours),
        "the trailer cut off in the middle": (good[:-8], unsigned),
        "the signature cut": (image + chunk(image, SIGNATURE, signature[:-8]), ours),
        "metadata replaced": (replaced + chunk(replaced, SIGNATURE, signature), ours),
        "metadata behind the signature": (good + chunk(good, METADATA, metadata()), unsigned),
        "an unknown chunk behind it": (good + chunk(good, 9, b"more"), unsigned),
        "bytes behind it, and metadata": (with_metadata(good + b"more"), unsigned),
        "an empty signature": (image + chunk(image, SIGNATURE, b""), unsigned),
        "a signature of zeros": (image + chunk(image, SIGNATURE, bytes(140)), ours),
        "a signature without its first line": (image + chunk(image, SIGNATURE, signature.split(b"\n", 1)[1]), ours),
        "another key's number in our signature": (
            image + chunk(image, SIGNATURE, other.sign(image).splitlines()[0] + b"\n" + signature.splitlines()[1][::-1] + b"\n"), ours),
        "a signature of 2 KiB": (image + chunk(image, SIGNATURE, signature + bytes(2048)), unsigned),
        "a firmware without a build number": (signed(no_build, maker), "signed, but without a build number"),
        "last year's firmware": (older, "build 170000000 is older than 171000000, which runs"),
        "the publisher's plain image": (pathlib.Path(machine.FIRMWARE).read_bytes(), unsigned),
    }


# What the daemon itself already refuses, before the guard is asked.
def refused_by_the_daemon(good):
    return {"empty": b"", "a page of a hotspot": b"<html>log in</html>" * 1000, "half of it": good[: len(good) // 2],
            "the size of the trailer 15": good[:-4] + (15).to_bytes(4, "big")}


def test_an_attacker_without_the_key_installs_nothing(guarded):
    router = guarded()
    before = environment_part(guarded.flash)
    firmware = guarded.flash.read_bytes()[0x90000:]
    variables = read_environment(before, guarded.server)
    outcomes = []
    for name, (image, reason) in forged().items():
        (guarded.server / "firmware.bin").unlink()
        (guarded.server / "firmware.bin").write_bytes(image)
        router.output("rm -f /tmp/fwupdate-guard/refused")
        answer = update(router, "firmware2")["error_code"]
        if answer == "0":
            router.output("until [ -e /tmp/fwupdate-guard/refused ]; do usleep 100000; done")
            told = router.output("cut -d ' ' -f 2- /tmp/fwupdate-guard/refused")
            assert "refused: " + reason in router.output("tail -n 5 /var/log/messages")
        else:
            told = f"the daemon: {answer}"
        outcomes.append((name, told))
        assert told in (reason, "the daemon: 3"), name
        assert facts(router) == OLD, name
        assert router.output("ls /tmp/fwupdate.bin /tmp/fwupdate-guard/image 2>/dev/null || :") == "", name
    for name, image in refused_by_the_daemon(GOOD.read_bytes()).items():
        (guarded.server / "firmware.bin").write_bytes(image)
        assert update(router, "firmware2")["error_code"] != "0", name
        outcomes.append((name, "the daemon"))
        assert facts(router) == OLD, name
    # A key that was taken away counts no more.
    (guarded.server / "firmware.bin").write_bytes(GOOD.read_bytes())
    router.output("mv /etc/fwupdate/keys /etc/fwupdate/revoked; mkdir /etc/fwupdate/keys; uci set fwupdate.guard.signature=required")
    router.output("rm -f /tmp/fwupdate-guard/refused")
    assert update(router, "firmware2")["error_code"] == "0"
    router.output("until [ -e /tmp/fwupdate-guard/refused ]; do usleep 100000; done")
    assert router.output("cut -d ' ' -f 2- /tmp/fwupdate-guard/refused") == "not signed by a key of this router"
    # A file of somebody else's in the place of the download; a folder of his in the place of ours.
    install = "/usr/lib/fwupdate/guard/sysupgrade -F /tmp/fwupdate.bin"
    router.output("touch /tmp/fwupdate.bin; chown 1000 /tmp/fwupdate.bin")
    assert router.run(install)[0] == 1
    assert "there is no image" in router.output("cat /tmp/fwupdate-guard/refused")
    router.output("wget -q -O /tmp/fwupdate.bin http://192.0.2.1/firmware.bin; chown 1000 /tmp/fwupdate-guard")
    assert router.run(install)[0] == 1
    assert "/tmp/fwupdate-guard cannot be used" in router.output("tail -n 1 /var/log/messages")
    print("\n".join(f"| {name} | {told} |" for name, told in outcomes))
    assert facts(router) == OLD
    router.quit()
    assert guarded.flash.read_bytes()[0x90000:] == firmware
    assert read_environment(environment_part(guarded.flash), guarded.server) == variables


# --- Firmware that does not work

@pytest.mark.parametrize("image, came", [
    ("bad-panics", "taken-back 174200000 boot r1300"),
    ("bad-hangs", "taken-back 174200000 boot r1300"),
    ("bad-daemon", "taken-back 174200000 10-daemon r1300"),
    ("bad-network", "taken-back 174200000 10-daemon r1300|taken-back 174200000 20-network r1300"),
    ("bad-server", "taken-back 174200000 30-server r1300"),
    ("bad-confirm", "taken-back 174200000 confirm r1300"),
])
def test_firmware_that_does_not_work_goes_out_again(guarded, tmp_path, image, came):
    router = guarded(WORK / f"{image}.bin")
    assert update(router, "firmware2")["error_code"] == "0"
    begin = time.monotonic()
    seen = router.wait_console("boot loader: start 1 of a firmware on trial")
    router.wait_console("boot loader: starting MODEL-X from firmware2", seen)
    router.wait_console("boot loader: starting MODEL-X from firmware\\.", seen, timeout=3 * machine.PATIENCE)
    router.wait_up(3 * machine.PATIENCE)
    while True:
        try:
            if facts(router)["booted"] == "firmware" and outcome(router):
                break
        except machine.Restarted:
            pass
        router.wait_up()
    print(f"{image}: back after {(time.monotonic() - begin) / 60:.1f} minutes: {outcome(router)}")
    assert outcome(router) in came.split("|")
    assert facts(router) == OLD
    assert variable(router, "upgrade_available") == "0"
    assert "Build 174200000 was tried and taken back" in router.output("fwupdate-cli result || :")
    shutil.copyfile(tmp_path / "writes", tmp_path / "writes-of-the-trial")
    # Not again by itself.
    assert update(router, "firmware2")["error_code"] == "0"
    router.output("until [ -e /tmp/fwupdate-guard/refused ]; do usleep 100000; done")
    assert "build 174200000 was taken back before" in router.output("fwupdate-cli status")
    assert facts(router) == OLD
    router.quit()
    check_every_moment(tmp_path / "writes-of-the-trial", tmp_path, "firmware")


def test_server_that_was_away_before_too_is_no_reason(guarded):
    router = guarded(WORK / "bad-server.bin")
    router.output("wget -q -O /tmp/fwupdate.bin http://192.0.2.1/firmware.bin; fw_setenv bootpart firmware2")
    router.run("/usr/lib/fwupdate/guard/sysupgrade -F /tmp/fwupdate.bin >/dev/null 2>&1 </dev/null &")
    router.wait_up()
    assert await_outcome(router) == "confirmed 174200000 r1300"
    assert facts(router) == NEW


# --- The environment of other people

@pytest.mark.parametrize("prepare, why, trial", [
    (["altbootcmd"], "the boot loader has a bootlimit, but no altbootcmd", "0"),
    (["filler"], "the boot environment does not hold it", "0"),
    (["bootlimit"], "", "1"),
], ids=["no altbootcmd", "no room", "no bootlimit"])
def test_environment_that_cannot_hold_a_trial(guarded, tmp_path, prepare, why, trial):
    shutil.copyfile(WORK / "guarded-flash", guarded.flash)
    if prepare == ["filler"]:  # sixty bytes are left: room for some variables, not for the trial's
        held = read_environment(environment_part(guarded.flash), tmp_path)
        used = sum(len(f"{name}={value}") + 1 for name, value in held.items())
        prepare = ["filler", "x" * (0x4000 - 5 - 1 - used - len("filler=") - 1 - 60)]
    set_variable(guarded.flash, tmp_path, *prepare)
    router = guarded()
    assert update(router, "firmware2")["error_code"] == "0"
    router.wait_console("installer: on tmpfs, writing [0-9]+ bytes into firmware2")
    now = read_environment(environment_part(guarded.flash), tmp_path)
    assert now.get("upgrade_available", "0") == trial and now["bootpart"] == "firmware2"
    router.wait_up()
    assert facts(router) == NEW


def test_trial_of_another_updater_is_left_alone(guarded):
    router = guarded()
    router.output("fw_setenv upgrade_available 1")
    assert update(router, "firmware2")["error_code"] == "0"
    router.output("until [ -e /tmp/fwupdate-guard/refused ]; do usleep 100000; done")
    assert "the firmware that runs is on trial" in router.output("cat /tmp/fwupdate-guard/refused")
    assert facts(router) == OLD and variable(router, "upgrade_available") == "1"


# --- Power cuts

def test_power_cuts_at_any_moment(guarded, tmp_path):
    """Cut at random moments of an update with its trial, confirmed or taken back, and switched on
    again: the environment is whole, a firmware starts, and nothing goes round for ever."""
    seed = int(os.environ.get("FWUPDATE_VM_SEED", time.time()))
    print(f"FWUPDATE_VM_SEED={seed} FWUPDATE_VM_CUTS={CUTS}")
    chance = random.Random(seed)
    cuts, rounds = 0, 0
    while cuts < CUTS:
        rounds += 1
        image = chance.choice(["guarded-r1300", "bad-server", "bad-panics"])
        shutil.copyfile(WORK / "guarded-flash", guarded.flash)
        router = guarded(WORK / f"{image}.bin", wait=False)
        for _ in range(chance.randint(1, 4)):
            cuts += 1
            try:
                router.wait_up(chance.uniform(10, machine.PATIENCE / 4))
                begin_update(router, "firmware2")
                time.sleep(chance.uniform(0, 90))
            except machine.MachineError:
                pass
            router.cut_power()
            now = read_environment(environment_part(guarded.flash), tmp_path)
            assert now is not None and now["bootpart"] in ("firmware", "firmware2")
            if now.get("fwupdate_outcome", "").startswith("confirmed"):
                assert image == "guarded-r1300"
            router = machine.Machine(tmp_path, guarded.flash, guarded.server)
        # Left alone it comes to rest, with a firmware that answers and no trial.
        router.wait_up(3 * machine.PATIENCE)
        while True:
            try:
                now = facts(router)
                if variable(router, "upgrade_available") != "1":
                    break
            except machine.Restarted:
                router.wait_up(3 * machine.PATIENCE)
        if now["booted"] != now["bootpart"]:  # what the second partition held before runs until the next restart
            router.cut_power()
            router = machine.Machine(tmp_path, guarded.flash, guarded.server)
            router.wait_up()
            now = facts(router)
        assert now["booted"] == now["bootpart"]
        assert image == "guarded-r1300" or now["revision"] == "r1234"
        router.cut_power()
    print(f"{cuts} cuts in {rounds} rounds")
