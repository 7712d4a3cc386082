# SPDX-License-Identifier: ISC
"""Power cuts: the environment after each single write, and what the next start makes of it."""
from conftest import TRIAL
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


def test_power_cuts_between_the_writes_of_an_installation(guard):
    """Until the last of them the router starts what it ran, and no trial is confirmed or held
    against the build."""
    cuts = None

    def install():
        nonlocal cuts
        guard.put(guard.good())
        guard.must("fw_setenv bootpart firmware2")
        cuts = writes(guard, "PATH=/usr/lib/fwupdate/guard:$PATH sysupgrade -F /tmp/fwupdate.bin")
    install()
    assert len(cuts) == 8
    for cut in cuts[1:-1]:
        assert start_with(guard, cut) == "firmware"
        assert guard.variables("upgrade_available", "bootpart", "fwupdate_refused")[1:] == ["firmware", ""]
        assert guard.variable("upgrade_available") != "1"
        assert not guard.variable("fwupdate_outcome").startswith("confirmed")
        assert guard.variable("fwupdate_trial").split(" ")[0] in ("", "over")
    assert start_with(guard, cuts[-1]) == "firmware2"
