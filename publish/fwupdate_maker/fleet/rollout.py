# SPDX-License-Identifier: ISC
"""A rollout's steps: the gate before the next one, and nginx's configuration."""
from __future__ import annotations

import dataclasses
import math
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
    """What the routers have to look like to whom the build was offered so long ago that
    each has had its turn. The defaults: of those who ask again nearly all have a good build;
    few more are silent than among the others; none takes a good build back but by chance."""

    updated: float = 90.0  # percent of those who asked again, at least
    silent: float = 2.0  # percent more than among the routers without the offer, at most
    taken_back: float = 0.5  # percent, at most
    least: int = 20  # routers; fewer prove nothing


class Failed(Exception):
    """nginx did not take the configuration, or could not be told."""


def reasons(state: State, build: str, times: report.Times, limits: Limits) -> tuple[list[str], list[str]]:
    """What speaks against the build, and what speaks against knowing it already. The last
    step that reached new routers is looked at by itself too: what is bad in it only would
    be lost among the many of the steps before."""
    rows = report.rollout(state, build, times, settled=True)
    last = last_raise(state, build)
    newest = report.totals([row for row in rows if row[0] is not None and row[0] >= last])
    first = min((row[0] for row in rows if row[0] is not None), default=last)
    bad: list[str] = []
    for counts, since in ((report.totals(rows), first), (newest, last)):
        if sum(counts.values()) >= limits.least:
            usual = report.others_silent(state, build, times, since)
            bad += [reason for reason in against(counts, usual, limits) if reason not in bad]
    whole = sum(newest.values())
    if whole >= limits.least:
        return bad, []
    return bad, [f"of the last step {whole} routers were offered it {times.silent / report.HOUR:g} hours ago or before;"
                 f" {limits.least} are needed"]


def last_raise(state: State, build: str) -> int:
    """When the share last became larger than it had ever been."""
    at, most = 0, 0.0
    for when, of, percent in state.steps():
        if of == build and (percent or 0) > most:
            at, most = when, percent
    return at


def against(counts: dict[str, int], usual: tuple[int, int], limits: Limits) -> list[str]:
    whole = sum(counts.values())
    heard = counts["updated"] + counts["stuck"] + counts["taken back"]
    found = []
    if heard and 100 * counts["updated"] < limits.updated * heard:
        found.append(f"{100 * counts['updated'] / heard:.1f} % of {heard} that asked again are updated; at least"
                     f" {limits.updated:g} % should be (stuck: {counts['stuck']})")
    share = usual[0] / usual[1] if usual[1] else 0
    # As many as elsewhere, with twice the deviation that chance gives to so few.
    allowed = limits.silent + 100 * (share + 2 * math.sqrt(share * (1 - share) / whole))
    if 100 * counts["silent"] > allowed * whole:
        found.append(f"{100 * counts['silent'] / whole:.1f} % of {whole} are silent since; at most {allowed:.3g} % may be")
    if 100 * counts["taken back"] > limits.taken_back * whole:
        found.append(f"{100 * counts['taken back'] / whole:.1f} % of {whole} have taken it back; at most"
                     f" {limits.taken_back:g} % may")
    return found


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
