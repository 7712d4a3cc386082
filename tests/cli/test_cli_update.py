# SPDX-License-Identifier: ISC
"""fwupdate-cli update: the question, the progress, the end; on terminals and without."""
import re

import pytest

from kept_answer import await_download, await_installer
from simulated_router import Router, make_server, wait_until

OFFER = "Version 2.1.0 (build 174117600) is available; this router runs build 171000000."
GOOD = "Version 2.1.0 (build 174117600) was downloaded and is good."
ARGUMENTS = {"partition": "firmware2", "timeout": 900, "attempts": 3, "delay": 0}


def was_installed(router):
    await_installer(router)
    return "sysupgrade -F /tmp/fwupdate.bin" in router.run("cat /var/log/sysupgrade").output


def is_untouched(router):
    return router.run("ls /var/log/sysupgrade /tmp/fwupdate.bin /tmp/fwupdate-cli").status != 0


def bars(output):
    """The lines drawn one over the other, without the empty one that ends them."""
    lines = [line for line in output.split("\r") if " % " in line or line.rstrip().endswith("%")]
    assert lines, output
    return lines


def update_seen(router, columns, environment=None):
    """The raw output of an update whose progress was shown, if only as a line."""
    terminal = router.open("fwupdate-cli update --yes --force", columns, environment)
    terminal.expect(" %" if (environment or {}).get("TERM") != "dumb" else "Downloading")
    router.release()
    return terminal.result().raw


def test_on_a_terminal_it_asks_shows_the_progress_and_installs(router):
    terminal = router.open("fwupdate-cli update", 100, {"COLUMNS": "100"})
    asked = terminal.expect("[y/N]")
    assert OFFER in asked and "fewer surprises" in asked and "will restart" in asked
    terminal.type("y\n")
    terminal.expect(" %")
    router.send_half()
    terminal.expect("iB/s")
    router.release()
    result = terminal.result()
    assert result.status == 0
    drawn = bars(result.output)
    assert any(re.search(r"\[#+\.+\] +\d+ %  [\d.]+(?: KiB)? of 2\.8 MiB +[\d.]+ [KM]iB/s  \d+:\d\d left", line)
               for line in drawn), drawn
    assert GOOD in result.output and "restarts in a moment" in result.output
    assert was_installed(router)


@pytest.mark.parametrize("answer", ["n\n", "\n", "yesterday\n", "\x04"])
def test_without_consent_nothing_happens(fast_router, answer):
    terminal = fast_router.open("fwupdate-cli update", 80)
    terminal.expect("[y/N]")
    terminal.type(answer)
    result = terminal.result()
    assert result.status == 0
    assert "Nothing was changed." in result.output
    assert is_untouched(fast_router)


def test_ctrl_c_at_the_question_starts_nothing(fast_router):
    terminal = fast_router.open("fwupdate-cli update", 80)
    terminal.expect("[y/N]")
    terminal.interrupt()
    assert terminal.wait() == -2
    assert "goes on" not in terminal.output()
    assert is_untouched(fast_router)


def test_without_a_terminal_it_takes_yes_and_prints_a_line_per_step(router):
    refused = router.run("fwupdate-cli update")
    assert refused.status == 2
    assert "takes --yes" in refused.output
    assert is_untouched(router)
    program = router.open("fwupdate-cli update --yes")
    program.expect("Downloading")
    router.release()
    result = program.result()
    assert result.status == 0
    assert "\r" not in result.output and "%" not in result.output and "\x1b" not in result.output
    lines = result.output.splitlines()
    assert lines[0] == OFFER
    assert lines.count("Downloading 2.8 MiB ...") == 1
    assert GOOD in lines
    assert was_installed(router)


@pytest.mark.parametrize("columns, environment", [(40, {}), (40, {"COLUMNS": "many"}), (24, {"COLUMNS": "24"})])
def test_the_bar_fits_a_narrow_terminal(router, columns, environment):
    """A router has no stty, so the command knows the width only when it is told."""
    terminal = router.open("fwupdate-cli update --yes", columns, environment)
    terminal.expect(" %")
    router.release()
    result = terminal.result()
    assert result.status == 0
    for line in bars(result.output):
        assert len(line.split("\n")[0]) < columns
        assert "MiB/s" not in line


def test_the_bar_follows_the_terminals_width_where_there_is_stty(router):
    router.must("ln -s busybox /bin/stty")
    terminal = router.open("fwupdate-cli update --yes", 120)
    terminal.expect(" %")
    terminal.resize(40)
    wait_until(lambda: len(bars(terminal.output())[-1]) <= 39, "the bar gets narrow")
    router.release()
    terminal.wait()
    assert max(map(len, bars(terminal.output()))) > 100
    assert len(bars(terminal.output())[-1].split("\n")[0]) <= 39


def test_no_color_leaves_no_escape_sequence(router):
    assert b"\x1b" in update_seen(router, 80)
    await_installer(router)
    router.hold_again()
    plain = update_seen(router, 80, {"NO_COLOR": "1"})
    assert b"\x1b" not in plain and b"\r[#" in plain
    await_installer(router, 2)
    router.hold_again()
    dumb = update_seen(router, 80, {"TERM": "dumb"})
    assert b"\x1b" not in dumb and b"\r[" not in dumb


def test_empty_no_color_counts_as_none(fast_router):
    assert b"\x1b" in fast_router.run("fwupdate-cli update --yes", 80, {"NO_COLOR": ""}).raw


def test_with_nothing_newer_there_is_nothing_to_do(tmp_path):
    with Router(server_root=make_server(tmp_path, build="171000000")) as router:
        for command in ("update --yes", "update --json --yes"):
            assert router.run(f"fwupdate-cli {command}").status == 0
        detached = router.run("fwupdate-cli update --yes --detach")
        assert detached.status == 0
        assert "nothing to do" in router.run("fwupdate-cli watch").output
        assert router.run("fwupdate-cli result --json").json()["result"] == "nothing"
        assert router.run("test -e /tmp/fwupdate.bin").status == 1
        router.run("echo old >/tmp/fwupdate.bin; touch -t 202001010000 /tmp/fwupdate.bin")
        router.run("fwupdate-cli update --yes --detach")
        assert "nothing to do" in router.run("fwupdate-cli watch").output
        result = router.run("fwupdate-cli update --yes --force")
        assert result.status == 0 and "was downloaded and is good" in result.output
        assert was_installed(router)


def test_json_prints_the_daemons_answer_and_nothing_else(fast_router):
    result = fast_router.run("fwupdate-cli update --json --yes", 80)
    assert result.status == 0
    assert result.json() == {"version": "2.1.0", "buildtime": "174117600", "force_update": "0",
                             "error_code": "0", "error_message": "No Error"}


def test_detach_comes_back_at_once_and_keeps_the_answer(router):
    detached = router.run("fwupdate-cli update --detach --yes --json")
    assert detached.status == 0
    assert detached.json()["job"] == "running"
    assert detached.json()["arguments"] == ARGUMENTS
    running = router.run("fwupdate-cli result --json")
    assert running.status == 4 and running.json()["job"] == "running"
    router.release()
    watched = router.run("fwupdate-cli watch")
    assert watched.status == 0 and GOOD in watched.output
    kept = router.run("fwupdate-cli result --json")
    assert kept.status == 0
    job = kept.json()
    assert (job["job"], job["result"]) == ("answered", "installing")
    assert job["answer"]["error_code"] == "0" and job["ended"] >= job["started"]
    assert GOOD in router.run("fwupdate-cli result", 80).output


def test_a_clock_that_is_set_back_does_not_hide_the_new_image(router):
    router.run("echo old >/tmp/fwupdate.bin")
    router.run("fwupdate-cli update --detach --yes")
    await_download(router)
    router.must("touch -t 203001010000 /tmp/fwupdate-cli/job.*/started")
    router.release()
    watched = router.run("fwupdate-cli watch")
    assert watched.status == 0 and GOOD in watched.output


def test_options_reach_the_daemon(fast_router):
    fast_router.run("fwupdate-cli update --detach --yes --force --partition firmware "
                    "--timeout 60 --attempts 2 --delay 1")
    assert fast_router.run("fwupdate-cli watch --json").json()["arguments"] == {
        "force": "1", "partition": "firmware", "timeout": 60, "attempts": 2, "delay": 1}
    assert fast_router.run("fw_printenv -n bootpart").output == "firmware\n"


def test_one_attempt_is_warned_of(fast_router):
    assert "blocks the daemon" in fast_router.run("fwupdate-cli update --yes --attempts 1").output
    await_installer(fast_router)
    assert "blocks the daemon" not in fast_router.run("fwupdate-cli update --yes --force").output


def test_a_damaged_image_is_refused_and_nothing_installed(tmp_path):
    root = make_server(tmp_path)
    image = bytearray((root / "firmware.bin").read_bytes())
    image[5000] ^= 1
    (root / "firmware.bin").write_bytes(image)
    with Router(server_root=root) as router:
        result = router.run("fwupdate-cli update --yes --attempts 2")
        assert result.status == 1
        assert "Bad Image checksum [-7]" in result.output
        assert "The image is damaged" in result.output
        assert router.run("fwupdate-cli result").status == 1
        assert router.run("fwupdate-cli result --json").json()["result"] == "failed"
        assert router.run("test -e /var/log/sysupgrade").status == 1
