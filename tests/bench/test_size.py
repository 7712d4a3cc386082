# SPDX-License-Identifier: ISC
"""How bench/size compares what it has measured with the budget. The measuring itself, which builds
the daemon, is what `bench/size --check` does in ./test.sh."""
import importlib.machinery
import importlib.util
import pathlib
import re

import pytest

PROGRAM = pathlib.Path(__file__).parents[2] / "bench/size"
FITTING = {"program": 26008, "data": 3264, "stack": 3408, "path": ("main", "handle_update")}


@pytest.fixture
def size(tmp_path, monkeypatch):
    loader = importlib.machinery.SourceFileLoader("bench_size", str(PROGRAM))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("bench_size", loader))
    loader.exec_module(module)
    budget = tmp_path / "size-budget"
    budget.write_text("# a comment\namd64 shared 26008 4096 4096\n")
    monkeypatch.setattr(module, "BUDGET", budget)
    monkeypatch.setattr(module, "own_architecture", lambda: "amd64")
    return module


def check(module, monkeypatch, found):
    monkeypatch.setattr(module, "measure", lambda arch, libraries, prefix: found)
    monkeypatch.setattr(module.sys, "argv", [str(PROGRAM), "--check"])
    with pytest.raises(SystemExit) as ended:
        module.main()
    return ended.value.code


def test_what_just_fits_passes(size, monkeypatch, capsys):
    assert check(size, monkeypatch, FITTING) == 0
    assert "TOO MUCH" not in capsys.readouterr().out


@pytest.mark.parametrize("figure, found, budget", [
    ("program", 26009, 26008), ("data", 4097, 4096), ("stack", 4097, 4096)])
def test_one_byte_too_many_fails_with_both_numbers(size, monkeypatch, capsys, figure, found, budget):
    assert check(size, monkeypatch, {**FITTING, figure: found}) == 1
    said = capsys.readouterr().out
    assert f"amd64, shared: {figure} {found} bytes, budget {budget}: TOO MUCH\n" in said
    assert said.count("TOO MUCH") == 1
    assert ("main > handle_update" in said) == (figure == "stack")


def test_an_architecture_without_a_budget_is_no_success(size, monkeypatch):
    size.BUDGET.write_text("mips-musl shared 1 1 1\n")
    assert check(size, monkeypatch, FITTING) == "bench/size: size-budget has no line for amd64"


def test_the_budget_that_ships_limits_every_figure_of_every_target(size):
    lines = (PROGRAM.parent / "size-budget").read_text().splitlines()
    rows = [line for line in lines if line and line[0] != "#"]
    assert [row.split()[:2] for row in rows] == [[target, "shared"] for target in ("amd64", *size.TARGETS)]
    assert all(re.fullmatch(r"\S+ \S+ \d+ \d+ \d+", row) for row in rows)
