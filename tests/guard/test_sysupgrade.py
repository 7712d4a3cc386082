# SPDX-License-Identifier: ISC
"""What stands between a verified image and the flash: how it is called, what runs behind it,
and what is left when something fails in the middle."""
import os

import pytest

from conftest import GUARD, IMAGE, TRIAL

REAL = "/sbin/sysupgrade"
TRIAL_VARIABLES = ("fwupdate_before", "bootcount", "upgrade_available", "bootpart")


# --- Calls

@pytest.mark.parametrize("arguments", [
    "", "-F", "-T {}", "-F {} {}", "{} {}", "-n -F {}", "-F -F {}", "--force {}", "-F /etc/passwd", "/etc/passwd",
    "-F fwupdate.bin", "-F ''", "-F http://192.0.2.1/firmware.bin"])
def test_another_call_is_no_call(guard, arguments):
    guard.put(guard.good())
    before = guard.must("fw_printenv")
    result = guard.run(f"cd /tmp; {GUARD} {arguments.format(IMAGE, IMAGE)}")
    assert (result.status, result.output.split(":")[0]) == (2, "Usage")
    assert guard.installed() == []
    assert guard.must("fw_printenv") == before
    guard.must(f"test -f {IMAGE} -a -s /etc/passwd")


def test_no_file_outside_of_tmp_is_deleted(guard):
    guard.must("echo kept >/root/kept")
    assert guard.run(f"{GUARD} -F /tmp/../root/kept").status == 2
    assert guard.must("cat /root/kept") == "kept"


@pytest.mark.parametrize("call", [
    GUARD + " -F", "sh " + GUARD + " -F", "PATH=/usr/lib/fwupdate/guard sysupgrade -F",
    "ln -s " + GUARD + " /tmp/fwupdate-link; PATH=/tmp/fwupdate-none:$PATH /tmp/fwupdate-link -F",
    "mkdir -p /tmp/fwupdate-one /tmp/fwupdate-two; ln -s " + GUARD + " /tmp/fwupdate-one/sysupgrade; ln " + GUARD +
    " /tmp/fwupdate-two/sysupgrade 2>/dev/null; PATH=/tmp/fwupdate-one:/tmp/fwupdate-two:/usr/lib/fwupdate/guard:$PATH sysupgrade -F",
    "cd /usr/lib/fwupdate/guard; PATH=.:$PATH ./sysupgrade -F", "env - " + GUARD + " -F"])
def test_however_it_is_called_the_real_one_runs_once(guard, call):
    assert guard.install(guard.good(), how=call) == 0
    assert guard.installed() == ["sysupgrade -F /tmp/fwupdate-guard/image"]


def test_without_F_the_real_one_gets_none(guard):
    assert guard.install(guard.good(), how=GUARD) == 0
    assert guard.installed() == ["sysupgrade /tmp/fwupdate-guard/image"]


def test_the_one_in_the_callers_path_is_taken(guard):
    guard.must("mkdir -p /tmp/fwupdate-own; printf '#!/bin/sh\\necho \"$PATH\" >/tmp/fwupdate-own/ran\\n' "
               ">/tmp/fwupdate-own/sysupgrade; chmod 755 /tmp/fwupdate-own/sysupgrade")
    assert guard.install(guard.good(), how="PATH=/usr/lib/fwupdate/guard:/tmp/fwupdate-own:$PATH sysupgrade -F") == 0
    # What it starts does not come through the guard again.
    assert guard.must("cat /tmp/fwupdate-own/ran") == "/usr/sbin:/usr/bin:/sbin:/bin"
    assert guard.installed() == []


def test_a_copy_of_itself_is_no_sysupgrade(guard):
    guard.remove(REAL)
    guard.must(f"mkdir -p /tmp/fwupdate-copy; cp {GUARD} /tmp/fwupdate-copy/sysupgrade")
    guard.install(guard.good(), how="PATH=/usr/lib/fwupdate/guard:/tmp/fwupdate-copy:$PATH sysupgrade -F")
    assert "refused: there is no sysupgrade behind this one" in guard.log() or \
        "refused: an image is being installed" in guard.log()
    assert guard.variable("bootpart") == "firmware"


def test_without_a_real_one_nothing_is_installed(guard):
    guard.remove(REAL)
    guard.install(guard.good())
    guard.assert_refused("there is no sysupgrade behind this one")


def test_programs_of_the_callers_path_are_not_its_tools(guard):
    guard.must("mkdir -p /tmp/fwupdate-evil; for name in usign fwtool uci jsonfilter ubus fw_printenv; do "
               "printf '#!/bin/sh\\nexit 0\\n' >/tmp/fwupdate-evil/$name; chmod 755 /tmp/fwupdate-evil/$name; done")
    guard.install(guard.body(), how="PATH=/usr/lib/fwupdate/guard:/tmp/fwupdate-evil:$PATH sysupgrade -F")
    guard.assert_refused("not signed")


# --- The image

@pytest.mark.parametrize("make", ["mv {0} {0}.real; ln -s {0}.real {0}", "rm {0}", "rm {0}; mkdir {0}", "rm {0}; mkfifo {0}",
                                  "rm {0}; ln -s /etc {0}"])
def test_what_is_no_file_of_roots_is_no_image(guard, make):
    guard.put(guard.good())
    guard.run(make.format(IMAGE))
    guard.must("fw_setenv bootpart firmware2")
    assert guard.run(f"{GUARD} -F {IMAGE}").status == 1
    assert guard.reason() == "there is no image"
    assert (guard.installed(), guard.variable("bootpart")) == ([], "firmware")


def test_a_path_through_a_link_is_no_image(guard):
    guard.put(guard.good())
    guard.must("ln -s /tmp /tmp/fwupdate-way; fw_setenv bootpart firmware2")
    assert guard.run(f"{GUARD} -F /tmp/fwupdate-way/fwupdate.bin").status == 1
    assert guard.reason() == "there is no image"


def test_an_image_that_somebody_still_writes_is_refused(guard):
    """A download that was begun again in the two seconds before the installer starts."""
    guard.put(guard.good())
    guard.must("fw_setenv bootpart firmware2")
    # The sandbox's processes are in /realproc.
    guard.run(f"(exec 8>>{IMAGE}; ln -s /realproc/$(sh -c 'echo $PPID') /proc/77; {GUARD} -F {IMAGE}); rm /proc/77")
    guard.assert_refused("the image is still being written")


def test_what_comes_under_the_old_name_is_not_installed(guard):
    good = guard.good()
    guard.replace("/usr/bin/usign", f"echo bad >{IMAGE}; exec /root/backup/usr/bin/usign \"$@\"")
    assert guard.install(good) == 0
    assert guard.must("sed -n 's/^size: //p' /var/log/sysupgrade") == str(len(good))


def test_a_second_call_leaves_the_first_alone(guard):
    guard.replace(REAL, "until [ -e /tmp/fwupdate-go ]; do sleep 0.05; done; exec /root/backup/sbin/sysupgrade \"$@\"")
    guard.put(guard.good())
    guard.must(f"fw_setenv bootpart firmware2; {GUARD} -F {IMAGE} >/dev/null 2>&1 &")
    guard.router.wait_for("grep -q 'let in' /var/log/messages")
    guard.put(guard.body())
    assert guard.run(f"{GUARD} -F {IMAGE}").status == 1
    assert guard.log()[-1] == "refused: an image is being installed"
    assert guard.variables(*TRIAL_VARIABLES) == ["firmware", "0", "1", "firmware2"]
    guard.must("touch /tmp/fwupdate-go")
    guard.router.wait_for("test -e /var/log/sysupgrade")


# --- Fails closed

@pytest.mark.parametrize("tool, reason", [
    ("/usr/bin/usign", "usign is not there"), ("/usr/bin/fwtool", "its metadata cannot be read"),
    ("/usr/bin/jsonfilter", "signed, but without a build number"), ("/usr/bin/ubus", "the build that runs cannot be read"),
    ("/usr/bin/hexdump", "not signed"), ("/usr/bin/tail", "not signed"), ("/bin/dd", "not signed by a key of this router"),
    ("/usr/bin/head", "/tmp cannot be written"), ("/sbin/uci", None)])
def test_without_a_tool_nothing_unsigned_gets_in(guard, tool, reason):
    path = guard.must(f"command -v {os.path.basename(tool)}")
    guard.remove(path)
    guard.install(guard.good() if reason else guard.body())
    assert guard.installed() == []
    assert guard.variable("bootpart") == "firmware"
    assert guard.reason() == (reason or "not signed")


@pytest.mark.parametrize("script, reason", [
    ("kill -KILL $$", "not signed by a key of this router"), ("exit 1", "not signed by a key of this router"),
    ("kill -SEGV $$", "not signed by a key of this router")])
def test_a_usign_that_crashes_says_no(guard, script, reason):
    guard.replace("/usr/bin/usign", script)
    guard.install(guard.good())
    guard.assert_refused(reason)


def test_a_full_tmp_refuses(guard):
    guard.put(guard.good())
    guard.must("fw_setenv bootpart firmware2; dd if=/dev/zero of=/tmp/fwupdate-full bs=4096 2>/dev/null || :")
    assert guard.run(f"{GUARD} -F {IMAGE}").status == 1
    # The image's own room is there for the reason.
    guard.assert_refused("/tmp cannot be written")


@pytest.mark.parametrize("make", ["ln -s /etc {0}", "touch {0}"])
def test_a_folder_of_somebody_else_is_not_used(guard, make):
    """Nobody is asked what `bootpart` was, as somebody else may have written that down."""
    guard.must("rm -rf /tmp/fwupdate-guard;" + make.format("/tmp/fwupdate-guard"))
    assert guard.install(guard.good()) == 1
    assert guard.installed() == []
    assert guard.log()[-1] == "/tmp/fwupdate-guard cannot be used"
    guard.must("! test -e /etc/lock; ! test -e /tmp/fwupdate-guard/lock")


@pytest.mark.parametrize("signal", ["TERM", "INT", "HUP"])
def test_ended_in_the_middle_it_refuses(guard, signal):
    guard.replace("/usr/bin/usign", f"kill -{signal} $(cat /tmp/fwupdate-pid); exit 0")
    guard.install(guard.good(), how=f"sh -c 'echo $$ >/tmp/fwupdate-pid; trap - INT; exec {GUARD} -F \"$0\"'")
    guard.assert_refused("ended from outside")


def test_killed_in_the_middle_it_has_changed_nothing(guard):
    guard.replace("/usr/bin/usign", "kill -KILL $(cat /tmp/fwupdate-pid); exit 0")
    guard.install(guard.good(), how=f"sh -c 'echo $$ >/tmp/fwupdate-pid; exec {GUARD} -F \"$0\"'")
    assert (guard.installed(), guard.variable("bootpart")) == ([], "firmware")
    guard.must("mv /root/backup/usr/bin/usign /usr/bin/")
    assert guard.install(guard.good()) == 0


# --- The boot environment

def calls_of_setenv(guard, otherwise="true", script="exec /root/backup/usr/sbin/fw_setenv \"$@\""):
    guard.replace("/usr/sbin/fw_setenv", f"echo \"$*\" >>/tmp/fwupdate-calls; {otherwise}; {script}")


def test_the_writes_come_in_an_order_in_which_each_is_harmless(guard):
    calls_of_setenv(guard)
    assert guard.install(guard.good()) == 0
    calls = guard.must("cat /tmp/fwupdate-calls").splitlines()[1:]
    assert calls[:3] == ["bootpart firmware", "fwupdate_outcome", "fwupdate_before firmware"]
    assert calls[3].startswith("fwupdate_trial 174200000 r1300 171000000 r1234 ")
    assert calls[4:] == ["bootcount 0", "upgrade_available 1", "bootpart firmware2"]


@pytest.mark.parametrize("name", ["fwupdate_before", "fwupdate_trial", "bootcount", "upgrade_available"])
@pytest.mark.parametrize("how", ["exit 1", "exit 0"])
def test_an_environment_that_does_not_take_the_trial_gets_none(guard, name, how):
    calls_of_setenv(guard, f'case "$*" in "{name} "*) {how} ;; esac')
    assert guard.install(guard.good()) == 0
    assert guard.variable("upgrade_available") != "1"
    assert guard.variable("bootpart") == "firmware2"
    assert guard.log()[-1] == "let in: build 174200000; no way back: the boot environment does not hold it"


def test_a_bootpart_that_cannot_be_put_back_is_said(guard):
    calls_of_setenv(guard, 'case "$*" in "bootpart firmware") exit 0 ;; esac')
    guard.install(guard.body())
    guard.assert_refused("not signed; bootpart could not be put back", bootpart="firmware2")


def test_a_bootpart_that_cannot_be_set_again_refuses(guard):
    """The real one would write over what runs."""
    calls_of_setenv(guard, 'case "$*" in "bootpart firmware2") [ -e /tmp/fwupdate-first ] && exit 0; touch /tmp/fwupdate-first ;; esac')
    guard.install(guard.good())
    guard.assert_refused("the boot environment cannot be written")


def test_a_router_without_an_environment_installs_without_a_trial(guard):
    guard.remove("/usr/sbin/fw_setenv")
    guard.put(guard.good())
    assert guard.run(f"{GUARD} -F {IMAGE}").status == 0
    assert guard.log()[-1] == "let in: build 174200000; no way back: the partitions are not known"


def test_a_bootpart_that_was_not_set_is_not_set_again(guard):
    guard.must("fw_setenv bootpart")
    guard.restart()
    guard.install(guard.body())
    guard.assert_refused("not signed", bootpart="")


def test_without_the_record_of_the_start_nobody_knows(guard):
    guard.must("rm /tmp/fwupdate-guard/start")
    guard.install(guard.body())
    guard.assert_refused("not signed; bootpart could not be put back", bootpart="firmware2")
    assert guard.install(guard.good()) == 0
    assert guard.log()[-1] == "let in: build 174200000; no way back: the partitions are not known"


@pytest.mark.parametrize("prepare, target, why", [
    ("true", "firmware", "it replaces the firmware that runs"),
    ("true", "firmware9", "the partitions are not known"),
    ("fw_setenv altbootcmd", "firmware2", "the boot loader has a bootlimit, but no altbootcmd"),
])
def test_no_way_back_is_said_and_it_goes_on(guard, prepare, target, why):
    guard.must(prepare)
    assert guard.install(guard.good(), target) == 0
    assert guard.log()[-1] == f"let in: build 174200000; no way back: {why}"
    assert (guard.variable("upgrade_available"), guard.variable("bootpart")) == ("", target)


def test_without_a_bootlimit_the_service_alone_decides(guard):
    guard.must("fw_setenv bootlimit; fw_setenv altbootcmd")
    assert guard.install(guard.good()) == 0
    assert guard.variable("upgrade_available") == "1"


def test_two_of_the_same_build_cannot_be_told_apart_by_their_builds(guard):
    guard.restart(told="")
    assert guard.install(guard.good(build="171000000")) == 0
    assert guard.log()[-1].endswith("no way back: the boot loader does not tell the two firmwares apart")
    guard.reset()
    guard.restart(told="")
    assert guard.install(guard.good()) == 0
    assert guard.variables(*TRIAL_VARIABLES) == ["firmware", "0", "1", "firmware2"]


def test_while_the_firmware_is_on_trial_no_other_one_comes(guard):
    guard.must("fw_setenv upgrade_available 1; fw_setenv fwupdate_before firmware2; fw_setenv fwupdate_trial '1 2'")
    guard.put(guard.good())
    guard.must(f"fw_setenv bootpart firmware2; {GUARD} -F {IMAGE} || true")
    assert guard.reason() == "the firmware that runs is on trial"
    assert guard.variables("upgrade_available", "bootpart", "fwupdate_before") == ["1", "firmware", "firmware2"]



def test_a_trial_that_never_began_does_not_stand_in_the_way(guard):
    guard.must("fw_setenv upgrade_available 1; fw_setenv fwupdate_before firmware; fw_setenv fwupdate_trial '1 2'")
    assert guard.install(guard.good()) == 0
    assert guard.variable("fwupdate_trial").startswith("174200000 ")


# --- The real one

@pytest.mark.parametrize("status", [1, 2, 127])
def test_a_sysupgrade_that_gives_up_leaves_no_trial(guard, status):
    guard.replace(REAL, f"exit {status}")
    guard.install(guard.good())
    guard.assert_refused(f"sysupgrade gave up with status {status}")


def test_under_one_that_was_ended_by_a_signal_nothing_is_put_back(guard):
    guard.replace(REAL, "kill -TERM $$")
    assert guard.install(guard.good()) == 143
    assert guard.variables(*TRIAL_VARIABLES) == ["firmware", "0", "1", "firmware2"]


def test_what_installs_already_keeps_its_image(guard):
    """It ends all processes, the bus before its caller too, which makes this look like a failure."""
    guard.must("mkdir -p /proc/1")
    guard.replace(REAL, "echo upgraded >/proc/1/comm; exit 7")
    assert guard.install(guard.good()) == 7
    guard.must("rm -r /proc/1; test -s /tmp/fwupdate-guard/image")
    assert guard.reason() == ""
    assert guard.variables(*TRIAL_VARIABLES) == ["firmware", "0", "1", "firmware2"]


def test_a_restart_of_the_service_does_not_end_a_trial_before_it_began(guard):
    guard.replace(REAL, TRIAL + " start; exec /root/backup/sbin/sysupgrade \"$@\"")
    assert guard.install(guard.good()) == 0
    assert guard.variables(*TRIAL_VARIABLES) == ["firmware", "0", "1", "firmware2"]
    assert guard.variable("fwupdate_outcome") == ""


def test_without_an_environment_there_is_no_trial_to_call_off(guard):
    guard.remove("/usr/sbin/fw_setenv")
    guard.replace(REAL, "exit 1")
    guard.put(guard.good())
    assert guard.run(f"{GUARD} -F {IMAGE}").status == 1
    assert guard.reason() == "sysupgrade gave up with status 1"


# --- A build that was taken back

def test_a_build_that_was_taken_back_needs_force(guard):
    image = guard.good()
    guard.must("fw_setenv fwupdate_refused 174200000")
    guard.install(image)
    guard.assert_refused("build 174200000 was taken back before")
    guard.must("touch /tmp/fwupdate-guard/force")
    assert guard.install(image) == 0
    guard.must("! test -e /tmp/fwupdate-guard/force")


def test_another_build_does_not(guard):
    guard.must("fw_setenv fwupdate_refused 174200000")
    assert guard.install(guard.good(build="174200001")) == 0


def test_force_does_not_make_an_older_one_or_an_unsigned_one_good(guard):
    for image, reason in ((guard.good(build="1"), "build 1 is older than 171000000, which runs"), (guard.body(), "not signed")):
        guard.reset()
        guard.must("touch /tmp/fwupdate-guard/force")
        guard.install(image)
        guard.assert_refused(reason)


def test_without_a_build_number_the_image_itself_is_remembered(guard):
    guard.must("uci set fwupdate.guard.signature=off")
    image = guard.body()
    assert guard.install(image) == 0
    build = guard.variable("fwupdate_trial").split()[0]
    assert build.startswith("sha-")
    guard.reset()
    guard.must(f"uci set fwupdate.guard.signature=off; fw_setenv fwupdate_refused {build}")
    guard.install(image)
    guard.assert_refused(f"build {build} was taken back before")


def test_one_that_is_signed_without_a_build_number_is_remembered_too(guard):
    guard.must("uci set fwupdate.guard.older=1")
    assert guard.install(guard.good(build=None)) == 0
    assert guard.variable("fwupdate_trial").startswith("sha-")


# --- What is noted for the trial

def test_what_is_well_before_is_noted(guard):
    assert guard.install(guard.good()) == 0
    assert guard.variable("fwupdate_trial") == "174200000 r1300 171000000 r1234 -,network.interface.wan NONE"


@pytest.mark.parametrize("wan, noted", [('"up": false', "-"), ('"up": true', "-,network.interface.wan")])
def test_an_interface_that_is_down_is_not_noted(guard, wan, noted):
    guard.must(f"cp /etc/router/wan.json /root/backup/ ; sed -i 's/\"up\": *[a-z]*/{wan}/' /etc/router/wan.json")
    assert guard.install(guard.good()) == 0
    guard.must("mv /root/backup/wan.json /etc/router/")
    assert guard.variable("fwupdate_trial").split()[4] == noted


def test_a_server_that_the_daemon_has_just_reached_is_noted(guard):
    guard.must("ubus call fwupdate check")
    assert guard.install(guard.good()) == 0
    assert guard.variable("fwupdate_trial").split()[5] == "XML_DONE"


def test_a_reason_is_gone_with_the_next_image_that_gets_in(guard):
    guard.install(guard.body())
    assert guard.reason() == "not signed"
    assert guard.install(guard.good()) == 0
    assert guard.reason() == ""
