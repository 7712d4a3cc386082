# SPDX-License-Identifier: ISC
"""Power cuts: the environment behind each single write, and at writes by chance, and what the next
starts make of it. The real tool writes, into two copies; a write that is cut in its middle is
tried on the virtual router."""
import os
import random
import time

from conftest import GUARD, IMAGE, TRIAL
from test_trial import CONFIRMED, OVER, begin, health, state, watch


def writes(guard, command):
    """The environment as it is before and behind each write of a command."""
    guard.replace("/usr/sbin/fw_setenv", 'cp /etc/router/u-boot-env.bin /tmp/fwupdate-env.$(ls /tmp | grep -c fwupdate-env); '
                                         'exec /root/backup/usr/sbin/fw_setenv "$@"')
    guard.run(command)
    guard.must("mv /root/backup/usr/sbin/fw_setenv /usr/sbin/; cp /etc/router/u-boot-env.bin /tmp/fwupdate-env.last;"
               "mkdir -p /root/cuts; rm -f /root/cuts/*; mv /tmp/fwupdate-env.* /root/cuts/")
    return guard.must("ls /root/cuts").split()


def start_with(guard, environment):
    """The boot loader's part, and the start of the firmware that it chooses."""
    guard.must(f"cp /root/cuts/{environment} /etc/router/u-boot-env.bin; rm -f /var/log/reboot")
    partition = guard.variable("bootpart")
    if guard.variable("upgrade_available") == "1":
        count = int(guard.variable("bootcount") or 0) + 1
        guard.must(f"fw_setenv bootcount {count}")
        if count > 3:
            partition = guard.variable("fwupdate_before")
    runs = {"firmware": "171000000", "firmware2": "174200000"}[partition]
    guard.must(f"cp /root/board.json /etc/router/; sed -i 's/171000000/{runs}/' /etc/router/board.json")
    guard.restart(partition)
    return partition


def test_power_cuts_between_the_writes_of_a_confirmation(guard):
    begin(guard, fwupdate_refused="1")
    for cut in writes(guard, f"{TRIAL} confirm"):
        assert start_with(guard, cut) == "firmware2"
        watch(guard)
        assert state(guard)[0] == "0" and state(guard)[2:] == CONFIRMED[2:]
        assert guard.variable("fwupdate_trial") == OVER


def test_power_cuts_between_the_writes_of_a_return(guard):
    """The check that failed fails again, or the old firmware runs already: never a third way."""
    health(guard, "50-ours")
    begin(guard)
    for cut in writes(guard, f"uci set fwupdate.guard.health_time=1; {TRIAL} watch"):
        if start_with(guard, cut) == "firmware2":
            watch(guard)
        assert state(guard)[2:4] == ["firmware", "taken-back 174200000 50-ours r1300"]
        assert (state(guard)[0], guard.variable("fwupdate_trial")) == ("0", OVER)


def install(guard):
    """The environment as it is before and behind each write of the guard."""
    guard.put(guard.good())
    guard.must("fw_setenv bootpart firmware2")
    return writes(guard, f"{GUARD} -F {IMAGE}")


def assert_old_one_runs(guard, cut):
    """No trial is left, confirmed, or held against the build."""
    assert start_with(guard, cut) == "firmware"
    assert guard.variables("bootpart", "fwupdate_refused") == ["firmware", ""]
    assert guard.variable("upgrade_available") != "1"
    assert not guard.variable("fwupdate_outcome").startswith("confirmed")
    assert guard.variable("fwupdate_trial").split(" ")[0] in ("", "over")


def test_power_cuts_between_the_writes_of_an_installation(guard):
    """Until the last of them the router starts what it ran."""
    cuts = install(guard)
    assert len(cuts) == 8
    for cut in cuts[1:-1]:
        assert_old_one_runs(guard, cut)
    assert start_with(guard, cuts[-1]) == "firmware2"


def test_power_cuts_while_an_installation_is_called_off(guard):
    guard.replace("/sbin/sysupgrade", "exit 1")
    cuts = install(guard)
    assert len(cuts) == 11
    for cut in cuts[8:]:
        assert_old_one_runs(guard, cut)


# --- By chance

CUTS = 40
NEW, OLD, OLDER = "174200000", "171000000", "165000000"


def prepare_walk(guard, works):
    """Both copies of the environment; what ends the power is the write whose number is in
    /root/left. The second partition has an earlier firmware until sysupgrade has run."""
    guard.reset()
    if not works:
        health(guard, "50-ours")
    guard.put(guard.good(), "/root/image")
    guard.must("/host/usr/bin/mkenvimage -r -s 0x4000 -o /root/copy /etc/router/u-boot-env.txt;"
               "cat /root/copy /root/copy >/etc/router/u-boot-env.bin; mkdir -p /root/backup/etc; cp /etc/fw_env.config /root/backup/etc/;"
               "printf '/etc/router/u-boot-env.bin %s 0x4000\\n' 0x0 0x4000 >/etc/fw_env.config;"
               "for pair in bootpart=firmware bootlimit=3; do fw_setenv ${pair%%=*} ${pair#*=}; done; fw_setenv altbootcmd go;"
               "uci set fwupdate.guard.health_time=1")
    guard.replace("/usr/sbin/fw_setenv",
                  'rm /root/first 2>/dev/null && exec /root/backup/usr/sbin/fw_setenv "$@";'
                  'left=$(($(cat /root/left) - 1)); echo $left >/root/left; [ $left -ne 0 ] || { read -r group </root/group;'
                  ' [ "$group" -gt 1 ] && kill -KILL -"$group"; }; exec /root/backup/usr/sbin/fw_setenv "$@"')


def start_and_run(guard, cut):
    """One start, with all that happens until the power is cut at that write. What ran. The guard's
    first write is spared: until then the daemon's word counts, with or without a guard."""
    held = dict(line.split("=", 1) for line in guard.must("fw_printenv").splitlines())
    partition, count = held["bootpart"], int(held.get("bootcount", 0)) + 1
    if held.get("upgrade_available") == "1":
        guard.must(f"/root/backup/usr/sbin/fw_setenv bootcount {count}")
        partition = held["fwupdate_before"] if count > 3 else partition
    build = OLD if partition == "firmware" else NEW if guard.installed() else OLDER
    guard.must(f"cp /root/board.json /etc/router/; sed -i s/{OLD}/{build}/ /etc/router/board.json; echo {cut} >/root/left;"
               f"echo bootpart={partition} >/proc/cmdline; rm -rf /tmp/fwupdate-guard")
    update = f"cp /root/image {IMAGE}; /root/backup/usr/sbin/fw_setenv bootpart firmware2; touch /root/first; {GUARD} -F {IMAGE}"
    guard.run(f"busybox setsid sh -c 'echo $$ >/root/group; {TRIAL} start; if {TRIAL} pending; then {TRIAL} watch;"
              f"elif [ {partition}:{cut > 0} = firmware:True ]; then {update}; fi' >/dev/null 2>&1")
    return partition, build


def test_power_cuts_at_writes_by_chance(guard):
    """Whatever was cut: left alone the router comes to rest, with the new firmware only where
    that has proven itself."""
    seed = int(os.environ.get("FWUPDATE_CUT_SEED", time.time()))
    print(f"FWUPDATE_CUT_SEED={seed}")
    chance, cuts, ends = random.Random(seed), 0, set()
    while cuts < CUTS:
        works = chance.random() < 0.5
        prepare_walk(guard, works)
        ran = []
        for _ in range(chance.randint(2, 6)):
            ran.append(start_and_run(guard, chance.randint(1, 10)))
            cuts += guard.must("cat /root/left") == "0"
        at_rest = False
        while not at_rest:
            assert len(ran) < 14, ran
            at_rest = guard.variable("upgrade_available") != "1"
            ran.append(start_and_run(guard, 0))
        outcome = guard.variable("fwupdate_outcome")
        stays = outcome.startswith("confirmed")
        assert (guard.variable("bootpart"), *ran[-1]) == (
            ("firmware2", "firmware2", NEW) if stays else ("firmware", "firmware", OLD)), ran
        assert works or not stays
        assert guard.variable("upgrade_available") != "1" and guard.variable("fwupdate_trial").split(" ")[0] in ("", "over")
        ends.add(outcome)
    print(f"{cuts} cuts; {sorted(ends)}")
