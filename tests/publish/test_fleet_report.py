# SPDX-License-Identifier: ISC
"""fwupdate-fleet report: each line once, every router in one state, nothing that a stranger
sends reaches a terminal or a page."""
import gzip
import html.parser
import random
import subprocess

import pytest
from fleet_logs import DAY, HOUR, NEW, OLD, Fleet, image, in_order, line, outcome, stamp


@pytest.fixture
def fleet(tmp_path):
    return Fleet(tmp_path)


def test_routers_are_counted_by_what_they_run_now(fleet):
    log = fleet.log([line(0, "A"), line(5, "B"), line(9, "B", "172000000"), line(3, "C", model="QOR,MODEL-Y")])
    found = fleet.report(log)
    assert {(row["model"], row["build"], row["routers"]) for row in found["builds"]} == {
        ("QOR,MODEL-X", OLD, 1), ("QOR,MODEL-X", "172000000", 1), ("QOR,MODEL-Y", OLD, 1)}
    assert (found["routers"], found["seen_last_day"], found["lines"]) == (3, 3, 4)


def test_every_state_of_an_offer(fleet):
    """Each on its own: what became of the offer two days before."""
    kinds = ("updated", "stuck", "taken back", "silent", "on the way")
    timed = [entry for kind in kinds for n in range(1 + kinds.index(kind))
             for entry in outcome(0 if kind == "silent" else 40 * HOUR, f"{kind[:2]}{n}", kind)]
    timed += [(48 * HOUR, line(48 * HOUR, "other"))]
    rollout = fleet.report(fleet.log(in_order(timed)), "--build", NEW)["rollout"]
    assert rollout["states"] == {kind: 1 + kinds.index(kind) for kind in kinds}
    assert rollout["offered"] == 15
    assert {row["serial"] for row in rollout["stuck"]} == {"st0", "st1"}


def test_stable_routers_are_offered_nothing(fleet):
    assert fleet.report(fleet.log([line(0), line(9 * HOUR)]), "--build", NEW)["rollout"]["offered"] == 0


def test_offer_begins_when_it_is_said(fleet):
    """What a router did in an earlier rollout does not count against this build."""
    log = fleet.log([line(0, offer="candidate"), line(3 * HOUR, offer="candidate"), line(10 * HOUR, offer="candidate")])
    found = fleet.report(log, "--build", NEW, "--since", stamp(9 * HOUR))["rollout"]
    assert found["states"]["on the way"] == 1
    found = fleet.report(log, "--build", NEW)["rollout"]
    assert found["states"]["stuck"] == 1


def test_steps_are_told_apart(fleet):
    for at, share in ((0, "10"), (DAY, "50")):
        assert fleet.kept("step", share, "--build", NEW, "--at", stamp(at), "--force").returncode == 0
    timed = outcome(HOUR, "A", "updated") + outcome(DAY + HOUR, "B", "updated") + outcome(DAY + 2 * HOUR, "C", "stuck")
    found = fleet.report(fleet.log(in_order(timed)), "--state", fleet.state)["rollout"]
    assert [(step["percent"], step["states"]["updated"], step["states"]["stuck"]) for step in found["steps"]] == [
        (10, 1, 0), (50, 1, 1)]


def test_line_without_a_time_does_not_begin_a_step(fleet):
    for at, build in ((0, NEW), (DAY, "174300000")):
        assert fleet.kept("step", "10", "--build", build, "--at", stamp(at)).returncode == 0
    lines = [line(HOUR, "A", offer="candidate"), "z" * 30 + "\n", "9999-99\n", line(2 * HOUR, "B", offer="candidate"),
             line(DAY, "C", offer="candidate"), "zz\n"]
    log = fleet.log(lines)
    assert fleet.report(log, "--state", fleet.state, "--build", NEW)["rollout"]["offered"] == 2
    assert fleet.report("--state", fleet.state)["rollout"]["offered"] == 1


def test_lines_are_read_once_whatever_becomes_of_the_log(fleet):
    """Growing, rotated, compressed, and half-written at its end."""
    words = ("--state", fleet.state)
    first, second = [line(0, "A"), line(5, "B")], [line(9, "A"), line(12, "C")]
    log = fleet.log(first + [second[0][:20]])
    assert fleet.report(log, *words)["lines"] == 2
    fleet.log(first + second)
    assert fleet.report(log, *words)["lines"] == 4
    log.rename(fleet.folder / "update.log.1")
    packed = fleet.folder / "update.log.2.gz"
    packed.write_bytes(gzip.compress("".join(first + second).encode()))
    new = fleet.log([line(99, "A"), line(100, "D")])
    found = fleet.report(fleet.folder / "update.log.1", packed, new, *words)
    assert (found["lines"], found["routers"]) == (6, 4)
    assert fleet.report(*words)["lines"] == 6


def test_order_of_the_servers_does_not_matter(fleet):
    timed = [entry for n, kind in enumerate(("updated", "stuck", "taken back", "silent", "on the way") * 4)
             for entry in outcome(n * 600, f"S{n}", kind)] + [(40 * HOUR, line(40 * HOUR, "x"))]
    whole = fleet.report(fleet.log(in_order(timed)), "--build", NEW)
    random.seed(7)
    servers = [[], [], []]
    for _, text in sorted(timed):
        random.choice(servers).append(text)
    logs = [fleet.log(lines, f"server{n}.log") for n, lines in enumerate(servers)]
    for order in (logs, logs[::-1]):
        found = fleet.report(*order, "--build", NEW)
        assert found == whole


def test_cut_archive_is_read_as_far_as_it_goes(fleet):
    packed = gzip.compress("".join(line(n, f"S{n}") for n in range(5000)).encode())
    path = fleet.folder / "cut.gz"
    path.write_bytes(packed[:len(packed) // 2])
    result = fleet.run("report", path)
    assert result.returncode == 0 and "it is cut" in result.stderr
    assert 100 < fleet.report(path)["routers"] < 5000


STRANGE = [
    line(1, "\\x1b[31mred"), line(1, "a b"), line(1, "<script>alert(1)</script>" + "x" * 20), line(1, "s" * 32),
    line(1, fw="1;DROP TABLE asked"), line(1, model=""), line(1, address="not an address"), line(1).replace("2025", "year"),
    "nonsense\n", "\t\t\t\t\t\t\t\t\n", "\x00\xff\n", line(1).replace("\t", " "), line(1)[:30] + "\n", "2025\t200\t1\tsn=\n",
    line(1).rstrip("\n") + "\tmore\n",
]


def test_lines_of_strangers_are_counted_and_left_out(fleet):
    log = fleet.folder / "update.log"
    log.write_bytes("".join([line(0, "A"), *STRANGE, line(9, "B")]).encode("latin-1"))
    found = fleet.report(log)
    assert found["routers"] == 2 and found["lines"] == 2 + len(STRANGE) and found["strange_lines"] == len(STRANGE)


def test_endless_line_needs_no_memory(fleet):
    log = fleet.folder / "update.log"
    log.write_bytes((line(0, "A") + "x" * (5 << 20) + "\n" + line(9, "B")).encode())
    assert fleet.report(log)["routers"] == 2


class Page(html.parser.HTMLParser):
    def __init__(self, text):
        super().__init__()
        self.tags, self.attributes, self.words = set(), [], ""
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        self.tags.add(tag)
        self.attributes += attributes

    def handle_data(self, data):
        self.words += data


def test_hostile_texts_reach_neither_terminal_nor_page(fleet):
    """They are of the characters that a router could send, and so they are kept."""
    evil = '"><script>x</script>&lt;'
    timed = outcome(0, evil, "stuck") + [(9, line(9, "A", model=evil, offer="nothing")),
                                        (10, line(10, "B", model="<b>" + evil[:20])),
                                        (11, line(11, "B", model="<b>" + evil[:20], address="192.0.2.99"))]
    page = fleet.folder / "page.html"
    result = fleet.run("report", fleet.log(in_order(timed)), "--build", NEW, "--html", page)
    assert result.returncode == 0 and evil in result.stdout
    read = Page(page.read_text())
    assert evil in read.words and "script" not in read.tags and "b" not in {t for t in read.tags if t == "i"}
    assert not any(name.startswith("on") or name in ("src", "href") for name, _ in read.attributes)


def test_page_is_whole_and_loads_nothing(fleet):
    timed = [entry for n, kind in enumerate(("updated", "stuck", "taken back", "silent", "on the way") * 4)
             for entry in outcome(n * 600, f"S{n}", kind)] + [(30 * HOUR, line(30 * HOUR, "x"))]
    page = fleet.folder / "page.html"
    log = fleet.log(in_order(timed))
    assert fleet.run("report", log, "--build", NEW, "--html", page).returncode == 0
    text = page.read_text()
    read = Page(text)
    assert {"svg", "table", "polygon", "rect"} <= read.tags
    assert "http" not in text.replace("http-equiv", "")
    assert "Stuck" in read.words and "updated: 4" in read.words


def test_adoption_adds_up_at_every_time(fleet):
    """Every router runs one build, also one that took the new one back."""
    from fwupdate_maker.fleet import report
    from fwupdate_maker.fleet.state import State
    timed = [entry for n, kind in enumerate(("updated", "stuck", "taken back", "silent", "updated") * 8)
             for entry in outcome(n * 900, f"S{n:02}", kind)]
    state = State(":memory:")
    state.read([str(fleet.log(in_order(timed)))], print)
    _, parts, series = report.adoption(state)
    assert series[NEW][-1] == 16 and series[OLD][-1] == 24
    totals = [sum(values[i] for values in series.values()) for i in range(len(parts))]
    assert totals == sorted(totals) and totals[-1] == 40


def test_page_names_each_step_and_a_pause():
    from fwupdate_maker.fleet import page, report
    from fwupdate_maker.fleet.state import State
    state = State(":memory:")
    state.add_step(0, NEW, 1, "")
    state.add_step(30 * HOUR, NEW, 0, "")
    text = page.page(report.collect(state, NEW, report.Times(silent=24 * HOUR, again=HOUR)), report.adoption(state))
    assert text.count("1 %, ") == 1 and text.count("paused, ") == 1


def test_downloads_of_the_image(fleet):
    log = fleet.log([line(0), image(1), image(2), image(3, size=100), image(4, status=206, size=50), image(5, status=503, size=9),
                     image(6, status=499, size=0), image(7, build="99")])
    assert fleet.report(log, "--build", NEW)["rollout"]["downloads"] == {"whole": 2, "broken_off": 3, "turned_away": 1}


def test_models_serials_and_routers_that_need_a_look(fleet):
    log = fleet.log([line(0, "A", model="QOR,NEW", offer="nothing"), line(1, "A", model="QOR,NEW", offer="nothing"),
                     line(2, "B", address="192.0.2.1"), line(3, "B", address="192.0.2.2"), line(4, "B", address="192.0.2.1"),
                     line(5, "", address="192.0.2.3"), line(6, "-")])
    found = fleet.report(log)
    assert [(row["model"], row["questions"]) for row in found["models_without_firmware"]] == [("QOR,NEW", 2)]
    assert [(row["serial"], row["addresses"]) for row in found["shared_serials"]] == [("B", 2)]
    assert found["without_serial"] == 2
    assert fleet.run("report", log).stdout.count("QOR,NEW") == 1


def test_routers_that_are_gone_can_be_forgotten(fleet):
    log = fleet.log([line(0, "A"), line(40 * DAY, "B")])
    assert fleet.report(log, "--forget", "30")["routers"] == 1


@pytest.mark.parametrize("words, reason", [
    ([], "no log is named"), (["gone.log"], "no such file"), (["a.log", "--build", "x"], "no build number"),
    (["a.log", "--since", "yesterday"], "no time"), (["a.log", "--silent", "-1"], "is no number"),
    (["--state", "a.log"], "not a database"), (["--unknown"], "unrecognized")])
def test_wrong_use(fleet, words, reason):
    fleet.log(["x" * 5000], "a.log")
    result = fleet.run("report", *words)
    assert result.returncode == 2 and reason in result.text, result.text


def test_state_of_another_version_is_left_alone(fleet):
    fleet.report(fleet.log([line(0)]), "--state", fleet.state)
    subprocess.run(["/usr/bin/python3", "-c", "import sqlite3, sys; c = sqlite3.connect(sys.argv[1]);"
                    " c.execute('PRAGMA user_version = 9'); c.commit()", fleet.state], check=True)
    assert "it is of version 9" in fleet.run("report", "--state", fleet.state).text


def test_help_and_usage(fleet):
    assert fleet.run().returncode == 2 and fleet.run("--help").returncode == 0
    for command in ("report", "step", "watch"):
        assert f"fwupdate-fleet {command}" in fleet.run(command, "--help").stdout
    assert fleet.run("fly").returncode == 2
