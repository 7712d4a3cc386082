# SPDX-License-Identifier: ISC
"""Counts what the state knows. The clock is the logs': "now" is their latest line, so
that a report of old logs says what was true then."""
from __future__ import annotations

import dataclasses
import datetime
from typing import Any

from .state import State

HOUR, DAY = 3600, 86400
STATES = ("updated", "on the way", "stuck", "silent", "taken back")
TOP = 20  # rows of a list that strangers could make long

# Of each router: what it runs now. Its last question says so.
NOW = "SELECT serial, build, model, max(last) AS seen FROM asked GROUP BY serial"

# Of each router that was offered build :build: the state that it is in now.
OFFERED = f"""
WITH now AS ({NOW}),
     offered AS (SELECT serial, min(first) AS at, max(last) AS again FROM asked
                 WHERE offer = :build AND build <> :build GROUP BY serial),
     ran AS (SELECT DISTINCT serial FROM asked WHERE build = :build)
SELECT serial, model, now.build AS build, seen, at, again,
       (SELECT max(steps.at) FROM steps WHERE steps.build = :build AND steps.at <= offered.at) AS step,
       CASE WHEN now.build = :build THEN 'updated'
            WHEN ran.serial IS NOT NULL THEN 'taken back'
            WHEN seen < :latest - :silent THEN 'silent'
            WHEN again >= offered.at + :again THEN 'stuck'
            ELSE 'on the way' END AS state
FROM offered JOIN now USING (serial) LEFT JOIN ran USING (serial)
"""


@dataclasses.dataclass(frozen=True)
class Times:
    """How long is long, in seconds."""

    silent: int = 36 * HOUR  # a router that asks once a day has missed its time
    again: int = HOUR  # an update asks twice within minutes; an hour later it has failed


def rollout(state: State, build: str, times: Times, settled: bool = False) -> list[tuple[Any, ...]]:
    """(step's time, state, number) of the routers that were offered the build; with
    `settled` only of those who would be silent if they had not asked since."""
    before = state.counted("latest") - (times.silent if settled else -1)
    return state.rows(f"SELECT step, state, count(*) FROM ({OFFERED}) WHERE at <= :before GROUP BY step, state",
                      build=build, latest=state.counted("latest"), silent=times.silent, again=times.again, before=before)


def totals(rows: list[tuple[Any, ...]]) -> dict[str, int]:
    found = dict.fromkeys(STATES, 0)
    for _, name, number in rows:
        found[name] += number
    return found


def others_silent(state: State, build: str, times: Times, since: int | None = None) -> tuple[int, int]:
    """How many routers without the offer are silent, of how many: what is usual. Only those
    count that asked between `since` (a week ago) and when the settled ones were offered it.
    Of those that still ask it is not known whether they did; a router that asks once within
    two thirds of `silent`, as the default has it, did so with the chance that this gives."""
    edge = state.counted("latest") - times.silent
    begin = edge - 7 * DAY if since is None else since
    silent, alive = state.rows(f"SELECT sum(seen < :edge), sum(seen >= :edge) FROM ({NOW}) WHERE seen >= :begin"
                               " AND serial NOT IN (SELECT serial FROM asked WHERE offer = :build)",
                               edge=edge, begin=begin, build=build)[0]
    chance = min(1.0, max(edge - begin, 0) / (times.silent * 2 / 3))
    return silent or 0, (silent or 0) + round((alive or 0) * chance)


def collect(state: State, build: str | None, times: Times) -> dict[str, Any]:
    """All that a report says, as JSON has it."""
    latest = state.counted("latest")
    found: dict[str, Any] = {
        "latest": latest,
        "lines": state.counted("lines"), "strange_lines": state.counted("strange"),
        "without_serial": state.counted("nameless"),
        "routers": state.value(f"SELECT count(*) FROM ({NOW})"),
        "seen_last_day": state.value(f"SELECT count(*) FROM ({NOW}) WHERE seen >= :edge", edge=latest - DAY),
        "builds": [{"model": model, "build": b, "routers": n, "last_seen": seen} for model, b, n, seen in state.rows(
            f"SELECT model, build, count(*) AS n, max(seen) FROM ({NOW}) GROUP BY model, build ORDER BY n DESC LIMIT 50")],
        "shared_serials": [{"serial": s, "addresses": n, "last_seen": seen} for s, n, seen in state.rows(
            "SELECT serial, addresses, last FROM shared ORDER BY addresses DESC, serial LIMIT :top", top=TOP)],
        "models_without_firmware": [{"model": m, "questions": n, "last_seen": seen} for m, n, seen in state.rows(
            "SELECT model, times, last FROM unserved ORDER BY times DESC, model LIMIT :top", top=TOP)],
    }
    if build is not None:
        found["rollout"] = collect_rollout(state, build, times)
    return found


def collect_rollout(state: State, build: str, times: Times) -> dict[str, Any]:
    rows = rollout(state, build, times)
    usual = others_silent(state, build, times)
    whole = state.value("SELECT max(bytes) FROM images WHERE build = :build AND status = '200'", build=build)
    images = state.rows("SELECT status, bytes, times FROM images WHERE build = :build", build=build)
    latest = state.counted("latest")
    return {
        "build": build,
        "offered": sum(row[2] for row in rows), "states": totals(rows),
        "steps": [{"at": at, "percent": percent, "why": why, "states": totals([row for row in rows if row[0] == at])}
                  for at, percent, why in state.rows(
                      "SELECT at, percent, why FROM steps WHERE build = :build ORDER BY at", build=build)],
        "others_silent": {"silent": usual[0], "of": usual[1]},
        "downloads": {"whole": sum(n for s, size, n in images if s == "200" and size == whole),
                      "turned_away": sum(n for s, _, n in images if s == "503"),
                      "broken_off": sum(n for s, size, n in images if s in ("206", "499") or s == "200" and size != whole)},
        "stuck": [{"serial": s, "model": m, "build": b, "offered": at, "last_seen": seen} for s, m, b, at, seen in state.rows(
            f"SELECT serial, model, build, at, seen FROM ({OFFERED}) WHERE state = 'stuck' ORDER BY at, serial LIMIT 100",
            build=build, latest=latest, silent=times.silent, again=times.again)],
    }


def adoption(state: State) -> tuple[int, list[int], dict[str, list[int]]]:
    """How many routers ran which build, over time: the width of a part of the time, their
    beginnings, and the numbers for each build. A router runs a build until it asks with
    the next one."""
    first, latest = state.value("SELECT min(first) FROM asked"), state.counted("latest")
    width = next(w for w in (HOUR, 6 * HOUR, DAY, 7 * DAY, 30 * DAY, 365 * DAY) if (latest - first) / w <= 120 or w == 365 * DAY)
    parts = list(range(first - first % width, latest + 1, width))
    moves = state.rows(f"""
        WITH ran AS (SELECT serial, build, min(first) AS first, max(last) AS last FROM asked GROUP BY serial, build),
             turn AS (SELECT serial, build, first, last, lead(first) OVER (PARTITION BY serial ORDER BY first) AS until
                      FROM ran),
             back AS (SELECT turn.build AS build, now.build AS after, turn.last AS at FROM turn JOIN ({NOW}) AS now
                      USING (serial) WHERE until IS NULL AND turn.build <> now.build)
        SELECT build, part, sum(number) FROM (
            SELECT build, first / :width AS part, 1 AS number FROM turn
            UNION ALL SELECT build, until / :width, -1 FROM turn WHERE until IS NOT NULL
            UNION ALL SELECT build, at / :width, -1 FROM back
            UNION ALL SELECT after, at / :width, 1 FROM back) GROUP BY build, part""", width=width)
    series: dict[str, list[int]] = {}
    for build, part, number in moves:
        series.setdefault(build, [0] * len(parts))[min(part - parts[0] // width, len(parts) - 1)] += number
    for values in series.values():
        for i in range(1, len(values)):
            values[i] += values[i - 1]
    return width, parts, series


def when(seconds: int | None) -> str:
    if not seconds:
        return "never"
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).strftime("%Y-%m-%d %H:%M")


def share(part: int, whole: int) -> str:
    return f"{100 * part / whole:.1f} %" if whole else "-"


def text(found: dict[str, Any]) -> str:
    lines = [f"{found['routers']} routers, {found['seen_last_day']} of them seen in the last day of the logs"
             f" (until {when(found['latest'])} UTC)."]
    lines += ["", f"{'build':>10}  {'routers':>9}  {'last seen (UTC)':<16}  model"]
    lines += [f"{row['build'] or '-':>10}  {row['routers']:>9}  {when(row['last_seen'])}  {row['model']}"
              for row in found["builds"][:TOP]]
    if "rollout" in found:
        lines += rollout_text(found["rollout"])
    if found["models_without_firmware"]:
        lines += ["", "Models that get nothing:"]
        lines += [f"{row['questions']:>10}  {row['model']}" for row in found["models_without_firmware"]]
    if found["shared_serials"]:
        lines += ["", "Serial numbers seen from several addresses within one log:"]
        lines += [f"{row['addresses']:>10}  {row['serial']}" for row in found["shared_serials"]]
    lines += ["", f"{found['lines']} lines read, {found['strange_lines']} of them no router's;"
              f" {found['without_serial']} questions came without a serial number."]
    return "\n".join(lines)


def rollout_text(found: dict[str, Any]) -> list[str]:
    lines = ["", f"Build {found['build']}: offered to {found['offered']} routers.",
             "  step            since (UTC)    " + "".join(f"{name:>12}" for name in STATES)]
    for step in found["steps"]:
        name = "paused" if step["percent"] == 0 else f"{step['percent']:g} %" if step["percent"] else "-"
        lines.append(f"  {name:<14}  {when(step['at']):<16}" + "".join(f"{step['states'][s]:>12}" for s in STATES)
                     + (f"  {step['why']}" if step["why"] else ""))
    lines.append(f"  {'together':<32}" + "".join(f"{found['states'][s]:>12}" for s in STATES))
    usual, got = found["others_silent"], found["downloads"]
    lines.append(f"  Silent among the routers without the offer: {share(usual['silent'], usual['of'])}.")
    lines.append(f"  Downloads: {got['whole']} whole, {got['broken_off']} broken off, {got['turned_away']} turned away.")
    if found["stuck"]:
        lines += ["  Stuck, the longest first:"]
        lines += [f"    {row['serial']:<31}  {row['build']:>10}  offered {when(row['offered'])}, seen {when(row['last_seen'])}"
                  for row in found["stuck"][:TOP]]
    return lines
