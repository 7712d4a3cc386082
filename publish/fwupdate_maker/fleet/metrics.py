# SPDX-License-Identifier: ISC
"""The report for Prometheus, as node_exporter's textfile collector reads it."""
from __future__ import annotations

from typing import Any

HEAD = """\
# HELP {name} {help}
# TYPE {name} gauge
"""


def label(text: str) -> str:
    return text.replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n")


def family(name: str, text: str, rows: list[tuple[dict[str, str], float]]) -> str:
    lines = []
    for labels, value in rows:
        inside = ",".join(f'{key}="{label(word)}"' for key, word in labels.items())
        lines.append(f"{name}{{{inside}}} {value:.15g}\n" if inside else f"{name} {value:.15g}\n")
    return HEAD.format(name=name, help=text) + "".join(lines)


def render(found: dict[str, Any]) -> str:
    parts = [
        family("fwupdate_fleet_routers", "Routers by what they run.",
               [({"model": row["model"], "build": row["build"]}, row["routers"]) for row in found["builds"]]),
        family("fwupdate_fleet_seen_last_day", "Routers that asked in the last day of the logs.",
               [({}, found["seen_last_day"])]),
        family("fwupdate_fleet_log_latest_seconds", "Time of the latest line.", [({}, found["latest"])]),
        family("fwupdate_fleet_lines", "Lines read.", [({"kind": "all"}, found["lines"]),
                                                       ({"kind": "strange"}, found["strange_lines"])]),
        family("fwupdate_fleet_without_firmware", "Questions of models that get nothing.",
               [({"model": row["model"]}, row["questions"]) for row in found["models_without_firmware"]]),
    ]
    rollout = found.get("rollout")
    if rollout:
        build = {"build": rollout["build"]}
        parts += [
            family("fwupdate_rollout_routers", "Routers that were offered the build, by what became of it.",
                   [({**build, "state": name.replace(" ", "_")}, number) for name, number in rollout["states"].items()]),
            family("fwupdate_rollout_percent", "The share of routers that is offered the build.",
                   [(build, rollout["steps"][-1]["percent"] or 0)] if rollout["steps"] else []),
            family("fwupdate_rollout_downloads", "Downloads of the build's image.",
                   [({**build, "outcome": name}, number) for name, number in rollout["downloads"].items()]),
        ]
    return "".join(parts)
