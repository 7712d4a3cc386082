# SPDX-License-Identifier: ISC
"""What a hostile update server, or daemon, cannot do to the terminal of fwupdate-cli; and
what the command advises for every error text of the daemon. The answers come from a
stand-in for the ubus command, but for one real manifest."""
import json
import re

import pytest

from simulated_router import PROJECT, Router, make_server

FAKE_UBUS = r"""#!/bin/sh
for word; do
	[ ! -e "/tmp/answers/$word" ] || exec cat "/tmp/answers/$word"
done
exit 4
"""
TURNS = "\u202e\u202a\u2066\u2069\u200e\u200f\u2028\u2029"  # direction, lines
EVIL = ("\x1b[2J\x1b]0;title\x07\x9b31m\x9d0;title\x9c\x08\x08\r\x0b\x0c\x0e\x7f\x01\x1f" + TURNS)
KEPT = "plain [x] ~ ä é ß ž 更新 🙂 \u2022 \u00a0"


@pytest.fixture(scope="module")
def router():
    with Router("--no-bus", "--no-server", "--no-syslog") as router:
        (router.folder / "ubus").write_text(FAKE_UBUS)
        router.run(f"mkdir /tmp/answers; cp {router.folder}/ubus /usr/bin/ubus; "
                   "chmod +x /usr/bin/ubus")
        yield router


def answer(router, **answers):
    for name, value in answers.items():
        text = value if isinstance(value, bytes) else json.dumps(value).encode()
        (router.folder / name).write_bytes(text + b"\n")
        router.run(f"cp {router.folder}/{name} /tmp/answers/")


def offer(text=KEPT, **more):
    return {"version": text, "buildtime": text, "releasenotes": text, "force": "0",
            "need_update": "1", "error_code": "0", "error_message": text, **more}


def idle(message=""):
    return {"state": "NONE", "message": message}


def assert_harmless(output):
    """Nothing but text: the line feeds, and what a terminal makes of them."""
    text = output.replace(b"\r\n", b"\n").decode()  # fails for what is no UTF-8
    found = [c for c in text if (c < " " and c != "\n") or "\x7f" <= c <= "\x9f" or c in TURNS]
    assert not found, found


@pytest.mark.parametrize("columns", [None, 80])
@pytest.mark.parametrize("command", ["check", "check --json", "status", "status --json",
                                     "test /bin/busybox", "update --yes"])
def test_hostile_texts_do_not_reach_the_screen(router, columns, command):
    answer(router, state=idle(EVIL + KEPT), check=offer(EVIL + KEPT + EVIL),
           test={"check_code": EVIL, "error_code": EVIL})
    output = router.run(f"fwupdate-cli {command}", columns, {"NO_COLOR": "1"}).raw
    if columns or "--json" not in command:
        assert_harmless(output)
    else:
        # For programs, as it came: JSON has no raw control characters below 0x20.
        assert all(byte >= 32 or byte == 10 for byte in output)


@pytest.mark.parametrize("columns", [None, 80])
def test_a_hostile_error_does_not_reach_the_screen(router, columns):
    answer(router, state=idle(), check=offer(error_code="1", error_message=EVIL + KEPT + EVIL))
    output = router.run("fwupdate-cli check", columns, {"NO_COLOR": "1"}).raw
    assert_harmless(output)
    assert "plain [x] ~" in output.decode()


def test_text_in_any_language_is_shown(router):
    answer(router, state=idle(), check=offer())
    assert router.run("fwupdate-cli check").output.count(KEPT) == 3


@pytest.mark.parametrize("bad", [b"\x80", b"\xbf", b"\xc0\xaf", b"\xc3", b"\xc3(", b"\xe2\x82",
                                 b"\xe2\x28\xa1", b"\xf0\x9f\x99", b"\xf8\x88\x80\x80\x80",
                                 b"\xff\xfe", b"\x9b31m", b"\xc2\x9b31m", b"\xed"])
def test_what_is_no_utf_8_is_left_out(router, bad):
    script = ". /usr/share/fwupdate-cli/text.sh; plain 'a{}z'; printf '%s\\n' \"$text\""
    (router.folder / "filter").write_bytes(script.encode().replace(b"{}", bad))
    output = router.run(f"sh {router.folder}/filter").raw
    assert_harmless(output)
    assert output.startswith(b"a") and output.endswith(b"z\n")


def test_what_is_not_seen_is_the_same_as_on_the_page(router):
    """At the edges of every range of the page's list, and one beyond."""
    source = re.search(r"^const UNSHOWABLE = /\[(.*)\]\|\\p\{Cs\}/gu;$", (PROJECT / "web/facts.js").read_text(), re.M).group(1)
    ranges = re.sub(r"\\u\{(\w+)\}", lambda code: f"\\U{code.group(1):0>8}", source).replace("\\0", "\\x00")
    hidden = re.compile(f"[{ranges}]")
    edges = {ord(c) + d for c in re.findall(r".", eval(f"'{ranges}'"), re.S) if c != "-" for d in (-1, 0, 1)}
    edges = sorted(edge for edge in edges if 32 <= edge < 0x110000 and not 0xd800 <= edge < 0xe000)
    assert len(edges) > 30
    (router.folder / "characters").write_text("".join(f"a{chr(edge)}z\n" for edge in edges))
    shown = router.run(f'. /usr/share/fwupdate-cli/text.sh; plain "$(cat {router.folder}/characters)"; printf "%s\\n" "$text"')
    expected = "".join("az\n" if hidden.match(chr(edge)) else f"a{chr(edge)}z\n" for edge in edges)
    assert shown.raw.decode() == expected


def test_a_version_of_several_lines_is_cut_to_the_first(router):
    answer(router, state=idle(), check=offer("9\nVersion 1 (build 1) is available"))
    first = router.run("fwupdate-cli check").output.split("\n")[0]
    assert first.startswith("Version 9 (build 9) is available; ")


@pytest.mark.parametrize("notes", ["", " ", "\t \n \n", "\x1b\x07"])
def test_blank_notes_leave_no_empty_lines(router, notes):
    """fwupdate-publish writes a blank for an offer without notes."""
    answer(router, state=idle(), check=offer(releasenotes=notes))
    assert len(router.run("fwupdate-cli check").output.splitlines()) == 1


def test_what_a_real_manifest_can_carry_is_harmless(tmp_path):
    notes = "now &#x9b;31mred &#x202e;txt &#x7f; &#x85;next \u009b2J &#xdf;ok"
    with Router(server_root=make_server(tmp_path, notes=notes, version="2&#x9b;2J")) as router:
        output = router.run("fwupdate-cli check", 80, {"NO_COLOR": "1"}).raw
    assert_harmless(output)
    assert b"is available" in output and "ßok".encode() in output


def daemon_texts():
    """Every text of the daemon that reports a failure, as the daemon's own table has it."""
    table = (PROJECT / "tests/router/texts_table.h").read_text()
    texts = re.findall(r'\{"(?:message|error)",\s*"((?:[^"\\]|\\.)*)"', table)
    no_failure = {"No Error", "Unknown", "%s [%d]"}
    # Said before the daemon is on the bus, or by code that nothing calls.
    unheard = {"Error on checking pids for '%s'\\n", "Service already running\\n",
               "Failed to add object: %s\\n", "Error on removing %s\\n",
               "Error while save unpacked firmware\\n"}
    texts = [text for text in texts if text not in no_failure | unheard]
    assert len(texts) > 50
    for text in texts:
        text = text.replace("\\n", "").replace('\\"', '"')
        yield text.replace("couldn't open %s", "couldn't open /tmp/fwupdate.bin").replace("%s", "x")


@pytest.mark.parametrize("text", daemon_texts())
def test_every_error_text_comes_with_advice(router, text):
    answer(router, state=idle(), check=offer(error_code="1", error_message=text))
    result = router.run("fwupdate-cli check")
    assert result.status == 1
    lines = result.output.splitlines()
    assert lines[0] == text
    assert len(lines) == 2 and lines[1].endswith((".", "?", "restart", "board", "FILE"))


def test_the_reason_that_the_state_has_decides_the_advice(router):
    reason = "Error on geting update info via CURL [Timeout was reached] (url = 'http://x')\n"
    answer(router, state=idle(reason),
           check=offer(error_code="1", error_message="Error on checking update avialability"))
    result = router.run("fwupdate-cli check")
    assert "avialability: Error on geting update info via CURL [Timeout" in result.output
    assert "was not reached" in result.output


@pytest.mark.parametrize("code, words", [
    (-2, "not there"), (-3, "not there"), (-4, "empty"), (-5, "no firmware"), (-6, "damaged"),
    (-7, "damaged"), (-8, "larger"), (-9, "another model"), (-10, "--partition"),
    (-99, "Unknown [-99]")])
def test_every_code_of_test_has_its_text(router, code, words):
    answer(router, state=idle(), test={"error_code": "3", "check_code": str(code)})
    result = router.run("fwupdate-cli test /bin/busybox")
    assert result.status == 1
    assert words in result.output and f"[{code}]" in result.output
