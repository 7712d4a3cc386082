# SPDX-License-Identifier: ISC
"""fwupdate-cli doctor finds what a router lacks, says what to do, and changes nothing."""
import re

import pytest

from simulated_router import PROJECT, Router

PLUGIN = f"{PROJECT}/cli/fwupdate-job"
UBUS = """case "$*" in
*"call system board"*) /tmp/ubus "$@" | sed '%s' ;;
*) exec /tmp/ubus "$@" ;;
esac"""
URL = "uci set system.@system[0].fwupdate_xml_url="


@pytest.fixture(scope="module")
def router():
    with Router() as router:
        yield router


@pytest.fixture
def own_router():
    with Router() as router:
        yield router


def findings(router):
    result = router.run("fwupdate-cli doctor --json")
    found = {finding["check"]: finding for finding in result.json()["findings"]}
    faults = [finding for finding in found.values() if finding["ok"] is False]
    assert result.status == (1 if faults else 0)
    for finding in found.values():
        assert set(finding) == {"check", "ok", "found", "means", "do"}
        assert finding["ok"] is True or (finding["means"] and finding["do"])
    return found


def test_on_a_router_that_has_all_nothing_is_missing(router):
    found = findings(router)
    assert {name for name, finding in found.items() if finding["ok"] is not True} == {"bootenv_copies"}
    text = router.run("fwupdate-cli doctor")
    assert text.status == 0
    for name, finding in found.items():
        assert f" {name}: {finding['found']}" in text.output or name == "clock"


def test_requirements_name_the_same_in_the_same_order(router):
    rows = re.findall(r"^\| `(\w+)` \|", (PROJECT / "docs/requirements.md").read_text(), re.M)
    assert rows == list(findings(router))


def test_nothing_is_changed(router):
    """Neither files, apart from the logs, nor what the daemon remembers. The project itself, which others
    work in, may be below /tmp: it is another file system there."""
    look = ("cd /; find bin etc sbin usr tmp var/lib proc/sys -xdev -exec ls -ld --full-time {} +;"
            "ubus call fwupdate state; cat /proc/sys/vm/*")
    before = router.run(look).output
    findings(router)
    assert router.run(look).output == before


def test_the_page_gets_the_same(router):
    answer = router.run(f"echo {{}} | {PLUGIN} call doctor").json()
    assert [finding["check"] for finding in answer["findings"]] == list(findings(router))


def replace(router, path, script):
    """The program at `path`, which stays as /tmp/NAME, by a script."""
    (router.folder / "script").write_text("#!/bin/sh\n" + script + "\n")
    router.must(f"mv {path} /tmp/ && cp {router.folder}/script {path} && chmod +x {path}")


LACKS = {
    "daemon": ("kill -KILL $(pidof fwupdate)", "/etc/init.d/fwupdate restart"),
    "tools": ("rm /usr/bin/fwtool", "packages"),
    "wan": ("echo '{}' >/etc/router/wan.json; kill $(pidof routerd); busybox setsid routerd </dev/null >/dev/null 2>&1 & "
            "sleep 1; ubus -t 30 wait_for system", "/etc/config/network"),
    "address": ("ip route del default", "ip route"),
    "partition": ("fw_setenv bootpart gone; printf 'dev: size erasesize name\\nmtd0: 00080000 00010000 \"u-boot\"\\n' >/tmp/mtd; "
                  "rm /proc/mtd; mv /tmp/mtd /proc/mtd", "--partition"),
    "tmp": ("dd if=/dev/zero of=/tmp/filler bs=1M count=50 2>/dev/null", "Remove large files"),
    "bootenv": ("rm /usr/sbin/fw_setenv", "uboot-envtools"),
    "manifest": (f"{URL}http://127.0.0.1:9/update.xml", "name server"),
}


@pytest.mark.parametrize("check", LACKS)
def test_what_is_missing_is_found(own_router, check):
    command, advice = LACKS[check]
    own_router.run(command)
    finding = findings(own_router)[check]
    assert finding["ok"] is False
    assert advice in finding["do"]


@pytest.mark.parametrize("check, path, script", [
    ("jsonfilter", "/usr/bin/jsonfilter", '[ "$1" != -e ] || exit 1; exec /tmp/jsonfilter "$@"'),
    ("mac", "/sbin/ifconfig", "echo ether 02:00:00:00:00:10"),
    ("clock", "/bin/date", "echo 1970"),
    ("bootenv", "/usr/sbin/fw_printenv", "echo Cannot read environment >&2; exit 1")])
def test_a_program_that_does_something_else_is_found(own_router, check, path, script):
    replace(own_router, path, script)
    assert findings(own_router)[check]["ok"] is False


@pytest.mark.parametrize("check, change, found", [
    ("product_name", "s/product_name/p/", "nothing"), ("board_name", "s/board_name/b/", "nothing"),
    ("revision", "s/revision/r/", "nothing"), ("builddate", "s/builddate/b/", "nothing"),
    ("builddate", "s/171000000/1710000000/", "1710000000"), ("builddate", "s/171000000/today/", "today")])
def test_what_the_board_does_not_say_is_found(own_router, check, change, found):
    replace(own_router, "/usr/bin/ubus", UBUS % change)
    finding = findings(own_router)[check]
    assert (finding["ok"], finding["found"]) == (False, found)


def test_a_serial_number_may_be_missing(own_router):
    own_router.run("rm /usr/sbin/qor_factory")
    assert findings(own_router)["serial"]["ok"] is None


def test_two_copies_of_the_boot_environment_are_well(own_router):
    own_router.run("cp /etc/router/u-boot-env.bin /etc/router/copy.bin; echo /etc/router/copy.bin 0x0 0x4000 >>/etc/fw_env.config")
    assert findings(own_router)["bootenv_copies"]["ok"] is True


@pytest.mark.parametrize("answers, found", [
    ("[ $# = 6 ] || echo '<buildtime>1</buildtime><url>u</url>'", "certificate is not trusted"),
    ("exit 4", "does not answer"),
    ("echo '<html>Please sign in</html>'", "answers something else"),
    ("echo '<buildtime>1</buildtime><url>u</url>'; seq 2000", "more than 1024 bytes"),
])
def test_what_the_server_answers_is_looked_at(own_router, answers, found):
    own_router.must(f"{URL}https://update.example.com/update.xml")
    replace(own_router, "/usr/bin/uclient-fetch", answers)
    finding = findings(own_router)["manifest"]
    assert finding["ok"] is False
    assert found in finding["found"]


def test_it_asks_what_the_daemon_asks(own_router):
    replace(own_router, "/usr/bin/uclient-fetch", 'for url; do :; done; echo "$url" >/tmp/asked')
    findings(own_router)
    asked = own_router.must("cat /tmp/asked")
    assert asked.endswith("/update.xml?fw=171000000&version=r1234&mac=02:00:00:00:00:10&ip=192.0.2.10"
                          "&model=QOR,MODEL-X&sn=AB12345&customid=&os=VOLKRAN")
