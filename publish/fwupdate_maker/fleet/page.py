# SPDX-License-Identifier: ISC
"""The report as one HTML file: no script, nothing that is loaded. It is drawn for a width
of 360 and grows up to twice that."""
from __future__ import annotations

from html import escape
from typing import Any

from .report import DAY, STATES, share, when

WIDTH, HEIGHT = 360, 200
LEFT, RIGHT, TOP, BOTTOM = 40, 8, 8, 22
COLOURS = ("#1f5fa8", "#d9822b", "#3b8f5a", "#8a5ab0", "#b8433f", "#5c8f99", "#c9a227", "#6b4f3a", "#9a9a9a")
STATE_COLOURS = dict(zip(STATES, ("#3b8f5a", "#9fc3e6", "#d9822b", "#777777", "#b8433f")))
BUILDS = len(COLOURS) - 1  # the rest are drawn together

STYLE = """
body { font: 16px/1.4 sans-serif; margin: 0 auto; padding: 0 8px 2em; max-width: 720px; color: #222; background: #fff }
h1 { font-size: 1.3em } h2 { font-size: 1.1em; margin-top: 1.6em }
svg { width: 100%; height: auto; display: block } svg text { font: 10px sans-serif; fill: #444 }
table { border-collapse: collapse; width: 100%; font-size: .9em } .wide { overflow-x: auto }
td, th { padding: 3px 4px; text-align: right; border-bottom: 1px solid #ddd; font-variant-numeric: tabular-nums }
td:first-child, th:first-child { text-align: left; overflow-wrap: anywhere; min-width: 6em }
ul.key { list-style: none; padding: 0; display: flex; flex-wrap: wrap; gap: 2px 14px; margin: 4px 0 }
.key b { display: inline-block; width: .8em; height: .8em; margin-right: 5px } .note { color: #555; font-size: .9em }
"""


def page(found: dict[str, Any], series: tuple[int, list[int], dict[str, list[int]]]) -> str:
    parts = [f"<h1>{found['routers']:,} routers</h1>",
             f"<p>{found['seen_last_day']:,} of them asked in the last day of the logs, which end at"
             f" {when(found['latest'])} UTC.</p>",
             "<h2>What they run, over time</h2>", adoption_chart(*series, found.get("rollout", {}).get("build"))]
    if "rollout" in found:
        parts += rollout(found["rollout"])
    parts += ["<h2>By model</h2>", model_chart(found["builds"])]
    parts += ["<h2>Builds</h2>", table(("model", "build", "routers", "last seen, UTC"), [
        (row["model"], row["build"] or "-", f"{row['routers']:,}", when(row["last_seen"])) for row in found["builds"][:20]])]
    if found["models_without_firmware"]:
        parts += ["<h2>Models that get nothing</h2>", table(("model", "questions", "last seen, UTC"), [
            (row["model"], row["questions"], when(row["last_seen"])) for row in found["models_without_firmware"]])]
    if found["shared_serials"]:
        parts += ["<h2>Serial numbers seen from several addresses</h2>", table(("serial number", "addresses", "last seen, UTC"), [
            (row["serial"], row["addresses"], when(row["last_seen"])) for row in found["shared_serials"]])]
    parts.append(f"<p class=note>{found['lines']:,} lines read, {found['strange_lines']:,} of them no router's."
                 f" {found['without_serial']:,} questions came without a serial number.</p>")
    return ('<!DOCTYPE html><html lang="en"><head><meta charset="utf-8"><meta name="viewport"'
            ' content="width=device-width, initial-scale=1"><meta http-equiv="Content-Security-Policy"'
            f' content="default-src \'none\'; style-src \'unsafe-inline\'"><title>Routers</title><style>{STYLE}</style>'
            f'</head><body>{"".join(parts)}</body></html>\n')


def table(heads: tuple[str, ...], rows: list[tuple[Any, ...]]) -> str:
    head = "".join(f"<th>{escape(text)}" for text in heads)
    body = "".join("<tr>" + "".join(f"<td>{escape(str(cell))}" for cell in row) for row in rows)
    return f'<div class=wide><table><tr>{head}{body}</table></div>'


def key(names: list[tuple[str, str]]) -> str:
    return "<ul class=key>" + "".join(f'<li><b style="background:{colour}"></b>{escape(name)}' for name, colour in names) + "</ul>"


def rollout(found: dict[str, Any]) -> list[str]:
    whole = found["offered"]
    states = found["states"]
    usual, got = found["others_silent"], found["downloads"]
    rows = []
    for step in found["steps"]:
        name = "paused" if step["percent"] == 0 else f"{step['percent']:g} %" if step["percent"] else "-"
        rows.append((f"{name}, {when(step['at'])}", *(f"{step['states'][s]:,}" for s in STATES)))
    parts = [f"<h2>Build {escape(found['build'])}: offered to {whole:,}</h2>",
             bar([(states[name], STATE_COLOURS[name]) for name in STATES]),
             key([(f"{name}: {states[name]:,} ({share(states[name], whole)})", STATE_COLOURS[name]) for name in STATES]),
             table(("step, UTC", *STATES), rows)]
    parts += [f"<p class=note>{escape(step['why'])}</p>" for step in found["steps"] if step["why"]]
    parts.append(f"<p class=note>Silent among the routers without the offer: {share(usual['silent'], usual['of'])}."
                 f" Downloads: {got['whole']:,} whole, {got['broken_off']:,} broken off, {got['turned_away']:,} turned away.</p>")
    if found["stuck"]:
        parts += ["<h2>Stuck: asked again with the old build</h2>", table(
            ("serial number", "build", "offered, UTC", "seen, UTC"),
            [(row["serial"], row["build"] or "-", when(row["offered"]), when(row["last_seen"])) for row in found["stuck"]])]
    return parts


def bar(parts: list[tuple[int, str]]) -> str:
    whole, x, drawn = sum(n for n, _ in parts) or 1, 0.0, []
    for number, colour in parts:
        width = WIDTH * number / whole
        drawn.append(f'<rect x="{x:.1f}" y="0" width="{width:.1f}" height="18" fill="{colour}"/>')
        x += width
    return f'<svg viewBox="0 0 {WIDTH} 18" role="img" aria-label="what became of the offer">{"".join(drawn)}</svg>'


def model_chart(builds: list[dict[str, Any]]) -> str:
    """A bar for each model, divided by build."""
    models: dict[str, list[dict[str, Any]]] = {}
    for row in builds:
        models.setdefault(row["model"], []).append(row)
    most = max((sum(r["routers"] for r in rows) for rows in models.values()), default=1)
    colours, drawn = build_colours(builds), []
    for line, (model, rows) in enumerate(list(models.items())[:12]):
        y, x = line * 30, 0.0
        drawn.append(f'<text x="0" y="{y + 10}">{escape(model)}: {sum(r["routers"] for r in rows):,}</text>')
        for row in sorted(rows, key=lambda r: str(r["build"])):
            width = WIDTH * row["routers"] / most
            drawn.append(f'<rect x="{x:.1f}" y="{y + 13}" width="{width:.2f}" height="11"'
                         f' fill="{colours.get(row["build"], COLOURS[-1])}"/>')
            x += width
    height = 30 * min(len(models), 12)
    named = [(build or "none", colour) for build, colour in sorted(colours.items())]
    return (f'<svg viewBox="0 0 {WIDTH} {height}" role="img" aria-label="routers by model">{"".join(drawn)}</svg>'
            + key([*named, ("others", COLOURS[-1])]))


def build_colours(builds: list[dict[str, Any]]) -> dict[str, str]:
    count: dict[str, int] = {}
    for row in builds:
        count[row["build"]] = count.get(row["build"], 0) + row["routers"]
    return dict(zip(sorted(count, key=lambda b: -count[b])[:BUILDS], COLOURS))


def adoption_chart(width: int, starts: list[int], series: dict[str, list[int]], always: str | None) -> str:
    """Areas, one upon the other: the oldest build below. `always` is shown however few run it."""
    if not starts or not series:
        return "<p>Nothing yet.</p>"
    most = sorted(series, key=lambda b: (b != always, -max(series[b])))[:BUILDS]
    shown = {b: series[b] for b in sorted(most, key=lambda b: int(b or 0))}
    others = [sum(values[i] for b, values in series.items() if b not in shown) for i in range(len(starts))]
    if any(others):
        shown["others"] = others
    total = max(sum(values[i] for values in shown.values()) for i in range(len(starts))) or 1
    across, down = WIDTH - LEFT - RIGHT, HEIGHT - TOP - BOTTOM

    def x(i: int) -> float:
        return LEFT + across * i / max(len(starts) - 1, 1)

    def y(n: int) -> float:
        return TOP + down * (1 - n / total)

    below, drawn, names = [0] * len(starts), [], []
    for (build, values), colour in zip(shown.items(), [*COLOURS[:len(shown) - ("others" in shown)], COLOURS[-1]]):
        above = [b + v for b, v in zip(below, values)]
        points = [f"{x(i):.1f},{y(n):.1f}" for i, n in enumerate(above)]
        points += [f"{x(i):.1f},{y(n):.1f}" for i, n in reversed(list(enumerate(below)))]
        drawn.append(f'<polygon points="{" ".join(points)}" fill="{colour}"/>')
        names.append((f"{build or 'no build'}: {values[-1]:,}", colour))
        below = above
    for part in range(5):
        n = total * part // 4
        drawn.append(f'<line x1="{LEFT}" x2="{WIDTH - RIGHT}" y1="{y(n):.1f}" y2="{y(n):.1f}" stroke="#0002"/>'
                     f'<text x="{LEFT - 4}" y="{y(n) + 3:.1f}" text-anchor="end">{short(n)}</text>')
    for i, anchor in ((0, "start"), (len(starts) // 2, "middle"), (len(starts) - 1, "end")):
        drawn.append(f'<text x="{x(i):.1f}" y="{HEIGHT - 6}" text-anchor="{anchor}">{when(starts[i])[:10 if width >= DAY else 16]}</text>')
    return (f'<svg viewBox="0 0 {WIDTH} {HEIGHT}" role="img" aria-label="routers by build over time">{"".join(drawn)}</svg>'
            + key(names))


def short(n: int) -> str:
    return f"{n / 1e6:.3g}M" if n >= 1_000_000 else f"{n / 1000:.3g}k" if n >= 1000 else str(n)
