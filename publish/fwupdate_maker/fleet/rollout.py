# SPDX-License-Identifier: ISC
"""A rollout's steps: the gate before the next one, and nginx's configuration."""
from __future__ import annotations

import dataclasses
import os
import pathlib
import re
import shlex
import subprocess
from typing import Callable

from ..refusal import Refusal, one_line
from . import report
from .state import State

CONFIGURATION = """\
# SPDX-License-Identifier: ISC
# Written by fwupdate-fleet. The build in front of the serial number decides who comes first.
split_clients "{build} $arg_sn" $step {{
{share}	* stable;
}}
"""


@dataclasses.dataclass(frozen=True)
class Limits:
    """What the routers have to look like to whom the build was offered a day ago, or as
    long as `Times.settle` says. The defaults: of a good build nearly all routers are there
    after a day; what is switched off or has lost its line is less than one in fifty; and
    no build that is good is taken back more than by chance."""

    updated: float = 90.0  # percent, at least
    silent: float = 2.0  # percent, at most
    taken_back: float = 0.5  # percent, at most
    least: int = 20  # routers; fewer prove nothing


class Failed(Exception):
    """nginx did not take the configuration, or could not be told."""


def reasons(state: State, build: str, times: report.Times, limits: Limits) -> tuple[list[str], list[str]]:
    """What speaks against the build, and what speaks against knowing it already."""
    counts = report.totals(report.rollout(state, build, times, settled=True))
    whole = sum(counts.values())
    if whole < limits.least:
        return [], [f"it was offered to {whole} routers long enough ago; {limits.least} are needed"]

    def percent(name: str) -> float:
        return 100 * counts[name] / whole

    bad = []
    if percent("updated") < limits.updated:
        bad.append(f"{percent('updated'):.1f} % of {whole} are updated; at least {limits.updated:g} % should be"
                   f" (stuck: {counts['stuck']}, on the way: {counts['on the way']})")
    if percent("silent") > limits.silent:
        bad.append(f"{percent('silent'):.1f} % of {whole} are silent since; at most {limits.silent:g} % may be")
    if percent("taken back") > limits.taken_back:
        bad.append(f"{percent('taken back'):.1f} % of {whole} have taken it back; at most {limits.taken_back:g} % may")
    return bad, []


def configuration(build: str, percent: float) -> str:
    share = f"\t{percent:g}% candidate;\n" if percent else ""
    return CONFIGURATION.format(build=build, share=share)


def write(path: pathlib.Path, text: str, nginx: str, say: Callable[[str], object]) -> None:
    """Puts the configuration in its place, and has nginx take it; the one of before comes
    back when nginx does not."""
    if not path.parent.is_dir():
        raise Refusal(f"--config '{path}': there is no folder for it.", "Name the file that update.conf includes.")
    before = path.read_bytes() if path.exists() else None
    replace(path, text.encode())
    try:
        call(nginx, "-t")
    except Failed:
        if before is None:
            path.unlink()
        else:
            replace(path, before)
        raise
    call(nginx, "-s", "reload")
    say(f"Written: {path}; nginx has it.")


def replace(path: pathlib.Path, content: bytes) -> None:
    part = path.with_name(f".{path.name}.part")
    try:
        with open(part, "wb") as file:
            os.fchmod(file.fileno(), 0o644)
            file.write(content)
            file.flush()
            os.fsync(file.fileno())
        os.replace(part, path)
    except BaseException:
        part.unlink(missing_ok=True)
        raise


def call(nginx: str, *words: str) -> None:
    try:
        result = subprocess.run([*shlex.split(nginx), *words], capture_output=True, text=True, errors="replace",
                                check=False, timeout=60)
    except (OSError, subprocess.TimeoutExpired) as error:
        raise Failed(f"{nginx}: {error}") from None
    if result.returncode != 0:
        raise Failed(f"nginx {' '.join(words)} failed: {one_line(result.stderr.strip())}")


def current(path: pathlib.Path) -> float:
    """The share that the configuration gives the candidate now."""
    try:
        match = re.search(r"^\s*([0-9.]+)%\s+candidate;", path.read_text(), re.MULTILINE)
    except FileNotFoundError:
        return 0
    return float(match.group(1)) if match else 0
