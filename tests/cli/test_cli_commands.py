# SPDX-License-Identifier: ISC
"""fwupdate-cli's short commands, with and without a terminal."""
import json

import pytest

from kept_answer import await_installer
from simulated_router import Router, make_image, make_server

NOTES = "Faster start, fewer surprises.\nSecond line: Grüße, žluť, 更新."
OFFER = "Version 2.1.0 (build 174117600) is available; this router runs build 171000000."


@pytest.fixture(scope="module")
def router(tmp_path_factory):
    root = make_server(tmp_path_factory.mktemp("server"), notes=NOTES)
    with Router(server_root=root) as router:
        make_image(router.folder / "good.bin", 1000)
        make_image(router.folder / "other.bin", 1000, model="MODEL-Y")
        (router.folder / "text").write_text("no firmware\n" * 100)
        yield router


@pytest.fixture(scope="module")
def silent_router():
    """What testbed/server serves is nothing newer."""
    with Router() as router:
        yield router


def state(router):
    return router.run("ubus -S call fwupdate state").json()


@pytest.mark.parametrize("columns", [None, 80])
def test_check_tells_version_builds_and_notes(router, columns):
    result = router.run("fwupdate-cli check", columns)
    assert result.status == 10
    assert result.output == f"{OFFER}\n\n{NOTES}\n\n"


@pytest.mark.parametrize("columns", [None, 80])
def test_check_with_nothing_newer_ends_with_0(silent_router, columns):
    result = silent_router.run("fwupdate-cli check", columns)
    assert result.status == 0
    assert "Nothing newer" in result.output and "171000000" in result.output


def test_check_names_the_failure_and_the_remedy(silent_router):
    silent_router.run("mv /usr/sbin/qor_factory /tmp; "
                      "printf '%s' '#!/bin/sh\necho http://127.0.0.1:9/' >/sbin/uci.new; "
                      "mv /sbin/uci /tmp; mv /sbin/uci.new /sbin/uci; chmod +x /sbin/uci")
    result = silent_router.run("fwupdate-cli check")
    silent_router.run("mv /tmp/uci /sbin/uci; mv /tmp/qor_factory /usr/sbin/")
    assert result.status == 1
    assert "Error on checking update avialability" in result.output
    assert "Error on geting update info via CURL" in result.output  # with --debug, the reason
    assert "Look at the network" in result.output


def test_json_prints_the_raw_reply(router):
    assert router.run("fwupdate-cli check --json").json() == {
        "version": "2.1.0", "buildtime": "174117600", "releasenotes": NOTES, "force": "",
        "need_update": "1", "error_code": "0", "error_message": "No Error"}
    assert router.run("fwupdate-cli status --json").json() == state(router)
    reply = router.run(f"fwupdate-cli test --json {router.folder}/good.bin").json()
    assert reply["check_code"] == "0"


def test_json_keeps_the_exit_status(router):
    assert router.run("fwupdate-cli check --json").status == 10
    assert router.run(f"fwupdate-cli test --json {router.folder}/text").status == 1


@pytest.mark.parametrize("columns", [None, 80])
def test_test_accepts_an_image_for_this_router(router, columns):
    result = router.run(f"fwupdate-cli test {router.folder}/good.bin", columns)
    assert result.status == 0
    assert "may be installed on this router" in result.output


@pytest.mark.parametrize("name, words", [
    ("other.bin", ["Bad Model [-9]", "another model"]),
    ("text", ["Bad Magic Number [-5]", "no firmware"]),
])
def test_test_says_why_not(router, name, words):
    result = router.run(f"fwupdate-cli test {router.folder}/{name}")
    assert result.status == 1
    for word in words:
        assert word in result.output


def test_test_takes_a_name_relative_to_the_folder(router):
    assert router.run(f"cd {router.folder} && fwupdate-cli test good.bin").status == 0


def test_status_tells_what_the_daemon_does(router):
    router.run("ubus call fwupdate check")
    result = router.run("fwupdate-cli status", 80)
    assert result.status == 0
    assert result.output.startswith("Idle (state XML_DONE).")


def test_result_without_an_update_says_so(router):
    result = router.run("fwupdate-cli result")
    assert result.status == 1
    assert "No update was started" in result.output
    assert router.run("fwupdate-cli result --json").json() == {"job": "none"}


def test_version_and_help(router):
    version = router.run("fwupdate-cli --version")
    assert (version.status, version.output.split()[0]) == (0, "fwupdate-cli")
    help_text = router.run("fwupdate-cli --help")
    assert help_text.status == 0
    for word in ("check", "update", "test FILE", "status", "watch", "result", "--json"):
        assert word in help_text.output


@pytest.mark.parametrize("command, words", [
    ("", "Usage:"),
    ("upgrade", "no command 'upgrade'"),
    ("check --force", "no option '--force'"),
    ("check now", "does not take 'now'"),
    ("update --yes --timeout", "--timeout takes a value"),
    ("update --yes --timeout 0", "from 1 to 2147483, not '0'"),
    ("update --yes --timeout 2147484", "from 1 to 2147483, not '2147484'"),
    ("update --yes --timeout 99999999999999999999", "takes a number"),
    ("update --yes --attempts 0", "from 1 to 1000, not '0'"),
    ("update --yes --attempts 1x", "not '1x'"),
    ("update --yes --delay -1", "from 0 to 2147483, not '-1'"),
    ("update --yes --delay 010", "not '010'"),
    ("update --yes --partition ''", "letters, digits"),
    ("update --yes --partition 'a;reboot'", "not 'a;reboot'"),
    ("update --yes --partition '$(reboot)'", "letters, digits"),
    ("update --yes --partition -x", "no - in front"),
    ("update --yes --partition " + "p" * 32, "at most 31 characters"),
    ("update --yes --partition firmware3", "one of firmware firmware2, which are no smaller than 'firmware2'; not 'firmware3'"),
    ("update --yes --partition u-boot", "not 'u-boot'"),
    ("update --yes --partition=rootfs", "not 'rootfs'"),
    ("test /bin/busybox --partition firmware2", "no option '--partition'"),
    ("--partition firmware2 test /bin/busybox", "no option '--partition'"),
    ("check --json=yes", "--json takes no value"),
    ("--timeout=5 check", "no option '--timeout'"),
    ("--json", "Usage:"),
    ("test", "takes the image's file name"),
    ("test ''", "takes the image's file name"),
    ("test /nowhere/at-all", "no file '/nowhere/at-all'"),
    ("test /tmp", "no file '/tmp'"),
    ("test '/tmp/a b'", "letters, digits"),
    ("test a b", "does not take 'b'"),
    ("test /" + "f" * 112, "at most 112 characters"),
    ("status now", "does not take 'now'"),
    ("update", "takes --yes"),
    ("update --json", "takes --yes"),
    ("update --detach", "takes --yes"),
])
def test_wrong_usage_is_refused_and_changes_nothing(router, command, words):
    router.run("ubus call fwupdate test '{}'")  # leaves the state at NONE
    before = state(router)["state"]
    result = router.run(f"fwupdate-cli {command}")
    assert result.status == 2
    assert words in result.output
    assert state(router)["state"] == before
    assert router.run("fwupdate-cli result --json").json() == {"job": "none"}


@pytest.mark.parametrize("command", ["check", "status", "update --yes", "update --yes --detach",
                                     "test /bin/busybox"])
@pytest.mark.parametrize("missing, words", [("--no-daemon", "the daemon is not on the bus"),
                                            ("--no-bus", "the bus is not there")])
def test_without_a_daemon_the_status_is_3(command, missing, words):
    with Router(missing, "--no-server", "--no-syslog") as router:
        for columns in (None, 80):
            result = router.run(f"fwupdate-cli {command}", columns)
            assert result.status == 3
            assert words in result.output
        assert json.loads(router.run("fwupdate-cli result --json").output) == {"job": "none"}


@pytest.mark.parametrize("command", ["--json check", "check --json", "--json --json check"])
def test_options_may_stand_before_the_command(router, command):
    assert router.run(f"fwupdate-cli {command}").json()["version"] == "2.1.0"


@pytest.mark.parametrize("command", [
    "--timeout 60 --yes update --attempts=2 --delay 1 --detach", "update --yes --detach --timeout=60 --attempts=2 --delay=1",
    "--detach --yes --timeout=60 update --delay=1 --attempts 2"])
def test_a_value_may_follow_its_option_in_either_way(router, command):
    router.must(f"fwupdate-cli {command}")
    router.must("fwupdate-cli watch")
    arguments = router.run("fwupdate-cli result --json").json()["arguments"]
    await_installer(router)
    router.must("rm -r /tmp/fwupdate-cli /tmp/fwupdate.bin /var/log/sysupgrade; ubus call fwupdate check")
    assert arguments == {"partition": "firmware2", "timeout": 60, "attempts": 2, "delay": 1}


@pytest.mark.parametrize("command", ["{}", "check {}", "--{} check", "update --yes --partition {}", "update --yes --timeout={}", "test {}"])
@pytest.mark.parametrize("value, start", [("x" * 5000, "x" * 50), ("one\ntwo", "one'"), ("a\x1b[2Jb", "a[2Jb"), ("\xe4" * 99, "\xe4" * 9)])
def test_a_quoted_value_is_one_short_line(router, command, value, start):
    (router.folder / "value").write_text(value)
    result = router.run("fwupdate-cli " + command.format(f'"$(cat {router.folder}/value)"'))
    assert result.status == 2
    first, *_ = result.raw.decode().splitlines()  # UTF-8, whatever was cut
    assert len(first) < 200 and "\x1b" not in first and start in first
    assert len(result.output.splitlines()) == 2


def test_without_a_program_that_it_needs_the_status_is_3(silent_router):
    result = silent_router.run("mv /usr/bin/jsonfilter /tmp; fwupdate-cli check; s=$?; "
                               "mv /tmp/jsonfilter /usr/bin; exit $s")
    assert result.status == 3
    assert "'jsonfilter' is not there" in result.output
