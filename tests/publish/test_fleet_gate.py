# SPDX-License-Identifier: ISC
"""fwupdate-fleet step and watch: the next step only when the routers are well."""
import pytest
from fleet_logs import DAY, HOUR, NEW, OLD, Fleet, in_order, line, outcome, stamp


@pytest.fixture
def fleet(tmp_path):
    fleet = Fleet(tmp_path)
    assert fleet.kept("step", "10", "--build", NEW, "--at", stamp(0)).returncode == 0
    return fleet


def night(fleet, updated=40, until=50 * HOUR, others_gone=0, **others):
    """A log of routers to which the build was offered in the first hour, and of fifty others."""
    timed = [(until, line(until, "last"))]
    for n in range(50):
        seen = n if n < others_gone else until - n
        timed += [(seen, line(seen, f"other{n}"))]
    for kind, number in {"updated": updated, **others}.items():
        for n in range(number):
            timed += outcome(n, f"{kind[:2]}{n}", kind.replace("_", " "))
    return fleet.log(in_order(timed))


def share(fleet):
    lines = [text.strip() for text in fleet.config.read_text().splitlines() if not text.startswith("#")]
    assert lines[0].startswith("split_clients") and lines[-2:] == ["* stable;", "}"]
    return lines[1] if len(lines) == 4 else None


def test_first_step_writes_the_configuration_and_has_nginx_take_it(fleet):
    assert share(fleet) == "10% candidate;"
    assert f'split_clients "{NEW} $arg_sn" $step' in fleet.config.read_text()
    assert fleet.calls() == ["-t", "-s reload"]
    assert not list(fleet.folder.glob(".*part"))


def test_next_step_is_taken_when_the_routers_are_well(fleet):
    result = fleet.kept("step", "50", night(fleet))
    assert result.returncode == 0, result.text
    assert share(fleet) == "50% candidate;"


@pytest.mark.parametrize("others, reason", [
    ({"stuck": 10}, "80.0 % of 50 that asked again are updated; at least 90 % should be (stuck: 10)"),
    ({"silent": 3}, "7.0 % of 43 are silent since; at most 2 % may be"),
    ({"taken_back": 1}, "2.4 % of 41 have taken it back; at most 0.5 % may"),
    ({"updated": 10}, "of the last step 10 routers were offered it 36 hours ago or before; 20 are needed"),
    ({"until": 30 * HOUR}, "of the last step 0 routers were offered it")])
def test_next_step_is_refused(fleet, others, reason):
    before = fleet.config.read_text()
    log = night(fleet, **others)
    result = fleet.kept("step", "50", log)
    assert result.returncode == 3 and reason in result.text, result.text
    assert fleet.config.read_text() == before and len(fleet.calls()) == 2
    # Going back is always allowed, and so is the operator.
    assert fleet.kept("step", "5").returncode == 0 and share(fleet) == "5% candidate;"
    assert fleet.kept("step", "50", "--force").returncode == 0 and share(fleet) == "50% candidate;"


def test_limits_are_options(fleet):
    log = night(fleet, stuck=10, silent=3)
    words = ("--updated", "70", "--max-silent", "10")
    assert fleet.kept("step", "50", log, *words[:2]).returncode == 3
    assert fleet.kept("step", "50", *words).returncode == 0


def test_each_step_is_looked_at_by_itself(fleet):
    """The routers of the first are well; nothing is known of the second's, and then too much."""
    assert fleet.kept("step", "50", night(fleet), "--at", stamp(50 * HOUR)).returncode == 0
    result = fleet.kept("step", "100")
    assert result.returncode == 3 and "of the last step 0 routers" in result.text
    timed = [entry for n in range(30) for entry in outcome(51 * HOUR + n, f"new{n}", "stuck" if n < 4 else "updated")]
    timed += [(90 * HOUR + n, line(90 * HOUR + n, f"other{n}")) for n in range(50)]
    result = fleet.kept("step", "100", fleet.log(in_order(timed), "second.log"))
    assert result.returncode == 3 and "86.7 % of 30 that asked again are updated" in result.text, result.text


def test_server_that_is_down_is_not_the_builds_fault(fleet):
    """A third of all routers is not heard of, with and without the offer."""
    log = night(fleet, silent=15, others_gone=17)
    assert fleet.kept("watch", log).returncode == 0
    assert fleet.kept("step", "50").returncode == 0


def test_pause_and_going_on(fleet):
    assert fleet.kept("step", "pause").returncode == 0
    assert share(fleet) is None
    assert fleet.kept("step", "10", "--force").returncode == 0
    assert share(fleet) == "10% candidate;"


def test_next_build_begins_without_a_gate(fleet):
    assert fleet.kept("step", "10", night(fleet, stuck=40), "--build", "174300000").returncode == 0
    assert 'split_clients "174300000 $arg_sn"' in fleet.config.read_text()


def test_dry_run_changes_nothing(fleet):
    before, calls = fleet.config.read_text(), fleet.calls()
    result = fleet.kept("step", "50", night(fleet), "--dry-run")
    assert result.returncode == 0 and "50% candidate;" in result.text
    assert (fleet.config.read_text(), fleet.calls()) == (before, calls)
    assert len(fleet.report("--state", fleet.state)["rollout"]["steps"]) == 1


def test_configuration_that_nginx_refuses_is_taken_back(fleet):
    before = fleet.config.read_text()
    (fleet.folder / "refuse").touch()
    result = fleet.kept("step", "50", night(fleet))
    assert result.returncode == 1 and "nginx -t failed: it does not fit" in result.text
    assert fleet.config.read_text() == before
    assert len(fleet.report("--state", fleet.state)["rollout"]["steps"]) == 1
    fleet.config.unlink()
    assert fleet.kept("step", "20", "--force").returncode == 1 and not fleet.config.exists()


def test_watch_lets_a_good_rollout_go_on(fleet):
    result = fleet.kept("watch", night(fleet))
    assert result.returncode == 0 and "nothing speaks against it" in result.text
    assert share(fleet) == "10% candidate;"


def test_watch_waits_while_nothing_is_known_yet(fleet):
    result = fleet.kept("watch", night(fleet, until=10 * HOUR, on_the_way=40))
    assert result.returncode == 0 and "but of the last step 0 routers were offered it" in result.text


def test_watch_pauses_by_itself_and_says_why(fleet):
    page = fleet.folder / "page.html"
    result = fleet.kept("watch", night(fleet, silent=5), "--at", stamp(51 * HOUR), "--html", page)
    assert result.returncode == 3 and "is paused" in result.stderr and "are silent since" in result.stderr
    assert share(fleet) is None
    steps = fleet.report("--state", fleet.state)["rollout"]["steps"]
    assert [step["percent"] for step in steps] == [10, 0] and "are silent since" in steps[1]["why"]
    assert "are silent since" in page.read_text()
    # Once is enough.
    result = fleet.kept("watch")
    assert result.returncode == 0 and "No rollout is under way" in result.text


def test_watch_as_a_dry_run_only_says_it(fleet):
    assert fleet.kept("watch", night(fleet, silent=5), "--dry-run").returncode == 3
    assert share(fleet) == "10% candidate;"


@pytest.mark.parametrize("words, reason", [
    (["step", "0"], "neither a share"), (["step", "101"], "neither a share"), (["step", "x"], "neither a share"),
    (["step"], "required"), (["step", "10", "--build", "1234567890"], "no build number")])
def test_wrong_use(tmp_path, words, reason):
    result = Fleet(tmp_path).kept(*words)
    assert result.returncode == 2 and reason in result.text, result.text


def test_step_without_a_rollout_is_refused(tmp_path):
    fleet = Fleet(tmp_path)
    result = fleet.kept("step", "10")
    assert result.returncode == 2 and "no rollout has begun" in result.text
    assert fleet.run("step", "10", "--state", "nowhere/state.db").returncode == 2


def test_new_rollout_does_not_inherit_what_was_stuck_before(fleet):
    """A paused candidate's routers ask with the old build, and are offered the mended one."""
    first = in_order([entry for n in range(40) for entry in outcome(n, f"S{n}", "stuck")] + [(38 * HOUR, line(38 * HOUR, "x"))])
    log = fleet.log(first)
    assert fleet.kept("watch", log, "--at", stamp(38 * HOUR)).returncode == 3
    assert fleet.kept("step", "10", "--build", "174300000", "--at", stamp(40 * HOUR)).returncode == 0
    more = in_order([(78 * HOUR, line(78 * HOUR, "x"))] + [entry for n in range(40) for entry in [
        (41 * HOUR + n, line(41 * HOUR + n, f"S{n}", OLD, "candidate")),
        (76 * HOUR + n, line(76 * HOUR + n, f"S{n}", "174300000", "candidate"))]])
    fleet.log(first + more)
    assert fleet.kept("step", "50", log).returncode == 0
    assert fleet.report("--state", fleet.state)["rollout"]["states"]["updated"] == 40
