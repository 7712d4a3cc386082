# SPDX-License-Identifier: ISC
"""Updates that nobody watches: each asks the server first, and writes the partition that boots."""
import re
import shlex

import pytest

from kept_answer import await_installer, kept
from simulated_router import HELD_URL, PROJECT, Router, make_server

NIGHTLY = "update --yes --detach"


def recipe():
    """The crontab line of docs/fwupdate-cli.md, without its times."""
    page = (PROJECT / "docs/fwupdate-cli.md").read_text()
    line = re.search(r"^\d+ 3 \* \* \* (.*)$", page, re.M).group(1)
    assert "%" not in line, "crond would make it a line end"
    return line


@pytest.fixture
def changing(tmp_path):
    """A router whose server has nothing newer, until make_server() says otherwise."""
    with Router(server_root=make_server(tmp_path, build="171000000")) as router:
        yield router, tmp_path


@pytest.mark.parametrize("command", ["update --yes", NIGHTLY, "update --yes --json", "update --yes --detach --json"])
def test_today_nothing_tomorrow_something(changing, command):
    router, served = changing
    assert router.run(f"fwupdate-cli {command}").status == 0
    router.run("fwupdate-cli watch")
    make_server(served)
    assert router.run(f"fwupdate-cli {command}").status == 0
    router.run("fwupdate-cli watch")
    assert kept(router)["result"] == "installing"
    await_installer(router)


def test_the_documented_recipe(changing):
    """The log says what came of it, and with which status."""
    router, served = changing

    def logged():
        router.must(": >/var/log/messages")
        router.must(recipe())
        lines = router.wait_for("grep fwupdate-cli: /var/log/messages | grep -q status; grep fwupdate-cli: /var/log/messages")
        return [line.split("fwupdate-cli: ", 1)[1] for line in lines.splitlines()]
    today = logged()
    assert today[0].startswith("Nothing newer: ") and today[-1] == "status 0"
    make_server(served)
    tomorrow = logged()
    assert "Version 2.1.0 (build 174117600) was downloaded and is good." in tomorrow
    assert tomorrow[-1] == "status 0"
    await_installer(router)
    (served / "update.xml").write_text("<html/>")
    broken = logged()
    assert broken[0].startswith("Error on checking update") and broken[-1] == "status 1"


def test_a_name_that_somebody_left_in_the_daemon_is_not_used(fast_router):
    router = fast_router
    router.call("test", file="/etc/banner", partition="u-boot")
    told = router.must("fwupdate-cli update --yes")
    assert "The partition 'firmware2' will be written." in told
    assert router.must("fw_printenv -n bootpart") == "firmware2"
    assert kept(router)["arguments"]["partition"] == "firmware2"


@pytest.mark.parametrize("mtd, bootpart, partition", [
    ("firmware firmware2", "firmware", "firmware"), ("firmware kernel rootfs", "gone", "firmware"),
    ("u-boot firmware ubi kernel", "gone", "ubi"), ("firmware kernel", "", "firmware"), ("u-boot firmware", "gone", "")])
def test_the_partition_is_the_one_that_boots(tmp_path, mtd, bootpart, partition):
    lines = [f'mtd{i}: 01800000 00010000 "{name}"' for i, name in enumerate(mtd.split())]
    (tmp_path / "mtd").write_text("dev:    size   erasesize  name\n" + "\n".join(lines) + "\n")
    with Router("--mtd", tmp_path / "mtd", "--no-bus", "--no-server", "--no-syslog") as router:
        router.must(f"fw_setenv bootpart {bootpart}")
        script = (". /usr/share/fwupdate-cli/text.sh; . /usr/share/fwupdate-cli/partition.sh; partition=; "
                  "choose_partition; echo \"[$partition]\"")
        assert router.must(script) == f"[{partition}]"


@pytest.mark.parametrize("name", ["u-boot", "u-boot-env", "kernel", "rootfs", "firmware3"])
def test_a_partition_that_cannot_boot_is_refused(fast_router, name):
    refused = fast_router.run(f"fwupdate-cli update --yes --partition {name}")
    assert refused.status == 2
    assert f"one of firmware firmware2, which are no smaller than 'firmware2'; not '{name}'" in refused.output
    assert fast_router.run("test -e /tmp/fwupdate-cli").status == 1


def test_without_a_list_of_partitions_the_daemon_may_try(fast_router):
    router = fast_router
    router.must("rm /proc/mtd")
    assert router.run("fwupdate-cli update --yes --partition firmware3").status == 0
    assert kept(router)["arguments"]["partition"] == "firmware3"


def test_the_question_names_the_partition(fast_router):
    terminal = fast_router.open("fwupdate-cli update --partition firmware", 80)
    assert "Install it on the partition 'firmware' now?" in terminal.expect("[y/N]")
    terminal.type("n\n")
    assert terminal.wait() == 0


# What ends early ends, also when what it has to say cannot be written.

@pytest.mark.parametrize("command", ["update --yes --detach --help", "--help update --yes", "update --yes --version",
                                     "help", "--version"])
def test_who_asks_for_help_gets_no_update(fast_router, command):
    router = fast_router
    assert router.run(f"fwupdate-cli {command} >/dev/full").status == 1
    assert router.run(f"fwupdate-cli {command}").status == 0
    assert router.run("test -e /tmp/fwupdate-cli").status == 1


@pytest.mark.parametrize("out", ["/dev/full", "/dev/null"])
def test_a_no_that_cannot_be_confirmed_is_a_no(fast_router, out):
    """The terminal is there when it asks, and gone when it would say that nothing was changed."""
    router = fast_router
    router.must("sed 's,^run_update$,,; $d' /usr/bin/fwupdate-cli >/tmp/functions")
    script = f". /tmp/functions; json= yes= partition=; exec >{out}; ask_consent; echo went on >&2"
    (router.folder / "script").write_text(script)
    result = router.run(f"echo n | sh {router.folder}/script update")
    assert "went on" not in result.output


# --- The page's plugin

PLUGIN = f"{PROJECT}/cli/fwupdate-job"


def ask(router, method, text="{}"):
    return router.run(f"printf %s {shlex.quote(text)} | {PLUGIN} call {method}").json()


def test_the_plugin_says_all_in_json(fast_router):
    router = fast_router
    assert router.run(f"{PLUGIN} list").json() == {"start": {"force": True}, "check": {}, "test": {"file": "/"}, "status": {}, "doctor": {}}
    refused = router.run(f"{PLUGIN} call stop")
    assert refused.status == 2 and refused.output.startswith("Usage: fwupdate-job")
    router.must("""printf '#!/bin/sh\\nprintf "a \\\\"b\\\\" \\\\134 c\\\\n\\\\td\\\\001"; exit 1\\n' >/usr/bin/fwupdate-cli""")
    assert ask(router, "start") == {"status": 1, "message": 'a "b" \\ c  d'}


@pytest.mark.parametrize("force", ['"true"', '"1"', "1", "null", "[]", '{"a":true}', '"$(reboot)"'])
def test_the_plugin_takes_no_other_force(fast_router, force):
    answer = ask(fast_router, "start", '{"force":%s}' % force)
    if force != "null":
        assert answer["status"] == 2 and "true or false" in answer["message"]
        assert fast_router.run("test -e /tmp/fwupdate-cli").status == 1


@pytest.mark.parametrize("force, sent", [("true", "1"), ("false", None)])
def test_the_plugin_starts(fast_router, force, sent):
    router = fast_router
    answer = ask(router, "start", '{"ubus_rpc_session":"x","force":%s}' % force)
    assert answer["status"] == 0
    router.must("fwupdate-cli watch")
    assert kept(router)["arguments"].get("force") == sent
    await_installer(router)


def test_the_plugin_does_not_start_on_garbage(fast_router):
    assert ask(fast_router, "start", "{garbage")["status"] == 2
    assert fast_router.run("test -e /tmp/fwupdate-cli").status == 1


def test_the_plugin_checks(changing):
    router, served = changing
    answer = ask(router, "check")
    assert (answer["status"], answer["answer"]["need_update"]) == (0, "0")
    make_server(served, notes="x" + "ä" * 300)  # cut inside a character by the daemon
    answer = ask(router, "check")
    assert (answer["status"], answer["answer"]["version"], answer["message"]) == (10, "2.1.0", "")
    assert answer["answer"]["releasenotes"] == "x" + "ä" * 255 + "2.1.0", "a full text runs on into the next"
    (served / "update.xml").write_text("<html/>")
    answer = ask(router, "check")
    assert (answer["status"], answer["answer"]["error_code"]) == (1, "1")
    assert answer["message"].startswith("Error on checking update avialability: Error parsing XML")
    router.must("kill -KILL $(pidof fwupdate)")
    answer = ask(router, "check")
    assert answer["status"] == 3 and "answer" not in answer


@pytest.mark.parametrize("file", ['"relative"', '""', '"--json"', '["/etc/banner"]', '"/a b"', '"/$(reboot)"', '"/nowhere"', "1"])
def test_the_plugin_takes_plain_files_only(fast_router, file):
    answer = ask(fast_router, "test", '{"file":%s}' % file)
    assert answer["status"] == 2 and "answer" not in answer


def test_the_plugin_tests_an_image(fast_router):
    answer = ask(fast_router, "test", '{"file":"/etc/banner"}')
    assert (answer["status"], answer["answer"]["check_code"]) == (1, "-5")
    assert "Bad Magic Number" in answer["message"]


@pytest.mark.parametrize("method, text", [("check", "{}"), ("test", '{"file":"/etc/banner"}'), ("start", "{}")])
def test_the_plugin_disturbs_no_update(router, method, text):
    router.must("fwupdate-cli update --yes --detach")
    router.wait_for("fwupdate-cli status --json | grep -q progress")
    before = ask(router, "status")
    answer = ask(router, method, text)
    assert answer["status"] == 4 and "answer" not in answer
    after = ask(router, "status")
    assert after["state"]["state"] == before["state"]["state"] == "FIRMWARE_CONNECT"
    assert after["update"] == before["update"]
    assert after["boot"] == router.must("cat /proc/sys/kernel/random/boot_id")


def test_the_plugin_looks_at_a_daemon_that_is_silent_or_away(router):
    assert ask(router, "status")["state"] == {"state": "NONE", "message": ""}
    router.stop_daemon()
    look = ask(router, "status")
    router.continue_daemon()
    assert (look["state"], look["silent"]) == (None, True)
    router.must("kill -KILL $(pidof fwupdate)")
    look = ask(router, "status")
    assert (look["state"], look["silent"], look["update"]) == (None, False, {"job": "none"})


# --- What the daemon's limits cut

def test_a_character_that_was_cut_breaks_nothing(tmp_path):
    """The daemon keeps 19 bytes of a version, and here the twentieth ends a character."""
    root = make_server(tmp_path, version="1" + "ž" * 20, url=HELD_URL + "/" + "ä" * 110 + "x")
    with Router(server_root=root) as router:
        assert "Version 1žžžžžžžžž" in router.run("fwupdate-cli check").output
        assert router.run("fwupdate-cli check --json").json()["version"].startswith("1ž")
        router.run("fwupdate-cli update --yes --attempts 2")
        answer = router.run("fwupdate-cli result --json")
        assert answer.json()["result"] == "failed"
        answer.raw.decode()
        look = router.run(f"echo {{}} | {PLUGIN} call status")
        look.raw.decode()
        assert look.json()["update"]["job"] == "answered"
