# SPDX-License-Identifier: ISC
"""The arithmetic behind bench/run's tables."""
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "bench"))

from measures.samples import Row, interleave, number, spread, table  # noqa: E402


def row(ours, baseline, goal=""):
    return Row("start", "ms", ours, baseline, "least", goal)


def test_ratio_is_that_of_the_medians():
    assert row([1, 3, 100], [2, 2, 2]).ratio() == 1.5


def test_a_baseline_of_nothing_has_no_ratio():
    assert row([1], [0]).ratio() == 0
    assert row([1], []).ratio() == 0


def test_goals_hold_from_above_and_from_below():
    assert row([11], [10], "<= 1.1").met()
    assert not row([12], [10], "<= 1.1").met()
    assert row([9.7], [10], ">= 0.97").met()
    assert not row([9.6], [10], ">= 0.97").met()
    assert row([1], [1]).met() is None


def test_a_goal_without_a_ratio_is_not_met():
    for goal in ("<= 1.1", ">= 0.97"):
        assert row([1], [0], goal).met() is None
        assert row([1], [], goal).met() is None
        assert table([row([1], [0], goal)])[-1].endswith(f"| 1 | {goal}, no ratio |")


def test_a_goal_for_the_figure_itself_needs_no_baseline():
    assert row([0], [0], "at most 0").met()
    assert not row([1], [0], "at most 0").met()
    assert row([61], [], "at most 61").met()
    assert table([row([2], [0], "at most 0")])[-1].endswith("| - | 1 | at most 0, missed |")


def test_a_missed_goal_says_so():
    assert table([row([12], [10], "<= 1.1")])[-1].endswith("| 1.200 | 1 | <= 1.1, missed |")
    assert table([row([11], [10], "<= 1.1")])[-1].endswith("| 1.100 | 1 | <= 1.1, met |")


def test_spread_is_half_the_distance_of_the_quartiles():
    assert spread([10, 10, 10, 10]) == 0
    assert round(spread([8, 9, 10, 11, 12]), 1) == 15.0


def test_a_spread_is_told_of_four_samples_and_more():
    assert "±" not in table([row([8, 9, 12], [8, 9, 12])])[-1]
    assert table([row([8, 9, 11, 12], [8, 9, 11, 12])])[-1].count("±") == 2


def test_numbers_keep_the_digits_that_count():
    assert [number(value) for value in (0, 0.1234, 1.234, 12.34, 123.4, 1234.5)] == [
        "0", "0.123", "1.23", "12.3", "123", "1,234"]


def test_variants_take_turns_and_the_first_round_does_not_count():
    order = []
    got = interleave(2, {"a": lambda: order.append("a") or len(order),
                         "b": lambda: order.append("b") or len(order)})
    assert order == ["a", "b", "b", "a", "a", "b"]
    assert got == {"a": [4, 5], "b": [3, 6]}
