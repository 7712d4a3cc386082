# SPDX-License-Identifier: ISC
"""fwupdate-fleet: what became of the firmware that was offered, and how far to offer it.

0 done; 1 something failed on the way; 2 the input is refused and nothing changed;
3 the gate: a step was refused, or the rollout was paused; 130 and 143: ended by a signal.
"""
from __future__ import annotations

import argparse
import datetime
import glob
import json
import os
import pathlib
import re
import signal
import sqlite3
import sys
import time
from typing import Any, Callable, NoReturn, Sequence

from ..refusal import Refusal, one_line
from . import metrics, page, report, rollout
from .state import State

FAILED, REFUSED, GATE = 1, 2, 3
STATE = "/var/lib/fwupdate-fleet/state.db"
LOGS = "/var/log/nginx/update.log*"
CONFIG = "/etc/nginx/rollout.conf"

USAGE = """\
What became of the firmware that was offered: read from the log that nginx writes anyway.

  fwupdate-fleet report LOG... [--build N]    routers by build and model; what became of build N
  fwupdate-fleet step PERCENT --build N       offer the candidate to so many routers
  fwupdate-fleet step pause                   offer it to nobody
  fwupdate-fleet watch                        pause by itself when routers do not come back

'fwupdate-fleet COMMAND --help' shows the options of a command.
"""

Options = argparse.Namespace


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        self.exit(REFUSED, f"fwupdate-fleet: {one_line(message)}.\n  See --help.\n")


def build(text: str) -> str:
    if not re.fullmatch("[1-9][0-9]{0,8}", text, re.ASCII):
        raise argparse.ArgumentTypeError(f"'{text}' is no build number of at most 9 digits")
    return text


def percent(text: str) -> float:
    if text == "pause":
        return 0
    if not re.fullmatch(r"[0-9]{1,3}(\.[0-9]{1,2})?", text, re.ASCII) or not 0 < float(text) <= 100:
        raise argparse.ArgumentTypeError(f"'{text}' is neither a share from 0.01 to 100 nor 'pause'")
    return float(text)


def number(text: str) -> float:
    if not re.fullmatch(r"[0-9]{1,6}(\.[0-9]+)?", text, re.ASCII):
        raise argparse.ArgumentTypeError(f"'{text}' is no number")
    return float(text)


def moment(text: str) -> int:
    try:
        found = datetime.datetime.fromisoformat(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"'{text}' is no time; give one such as 2026-11-22T07:00:00+00:00") from None
    return int(found.astimezone().timestamp())


def parser(command: str) -> Parser:
    made = Parser(prog=f"fwupdate-fleet {command}", add_help=False, allow_abbrev=False)
    add = made.add_argument
    if command == "step":
        add("percent", type=percent, metavar="PERCENT|pause", help="the share of routers that is offered the candidate")
    add("logs", nargs="*", metavar="LOG", help="plain or gzipped"
        + ("" if command == "report" else f"; without any: {LOGS}"))
    add("--state", metavar="FILE", help="where what was read is kept, so that a log is read once"
        + ("" if command == "report" else f" ({STATE})"))
    add("--build", metavar="N", type=build, help="the build that is rolled out; without it the last one")
    if command == "report":
        add("--since", metavar="TIME", type=moment, help="when it was first offered, where 'step' was not used")
    add("--silent", metavar="HOURS", type=number, default=36, help="a router is silent after so long (36)")
    add("--again", metavar="HOURS", type=number, default=1, help="asked with the old build so long after: stuck (1)")
    add("--forget", metavar="DAYS", type=number, help="leave out routers that have not asked for so long")
    if command != "step":
        add("--html", metavar="FILE", help="write the report as a page with charts")
        add("--prometheus", metavar="FILE", help="write the figures for node_exporter's textfile collector")
    if command == "report":
        add("--json", action="store_true", help="all figures as JSON")
    else:
        add_gate(add)
    add("--help", action="help", help="show this")
    return made


def add_gate(add: Callable[..., Any]) -> None:
    limits = rollout.Limits()
    add("--updated", metavar="PERCENT", type=number, default=limits.updated,
        help=f"so many of those who asked again have to be updated ({limits.updated:g})")
    add("--max-silent", metavar="PERCENT", type=number, default=limits.silent,
        help=f"so many more may be silent than among the others ({limits.silent:g})")
    add("--max-taken-back", metavar="PERCENT", type=number, default=limits.taken_back,
        help=f"so many may have taken it back ({limits.taken_back:g})")
    add("--least", metavar="N", type=number, default=limits.least, help=f"fewer routers prove nothing ({limits.least})")
    add("--config", metavar="FILE", default=CONFIG, help=f"nginx's file ({CONFIG})")
    add("--nginx", metavar="COMMAND", default="nginx", help="how nginx is called (nginx)")
    add("--at", metavar="TIME", type=moment, help="when the step counts from (now)")
    add("--dry-run", action="store_true", help="say what would be done, and change nothing")
    add("--force", action="store_true", help="take the step whatever the gate says")


def run() -> NoReturn:
    if sys.stdout is not None:  # None when it is closed
        sys.stdout.reconfigure(errors="backslashreplace")  # type: ignore[attr-defined]
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        sys.exit(main(sys.argv[1:]))
    except KeyboardInterrupt:
        sys.exit(130)


def main(arguments: Sequence[str]) -> int:
    if not arguments or arguments[0] in ("--help", "help"):
        print(USAGE, end="", file=sys.stdout if arguments else sys.stderr)
        return 0 if arguments else REFUSED
    if arguments[0] not in RUN:
        return complain(f"'{arguments[0]}' is no command.\n  See --help.", REFUSED)
    try:
        return RUN[arguments[0]](parser(arguments[0]).parse_args(arguments[1:]))
    except Refusal as refusal:
        return complain(f"{refusal}\nNothing was changed.", REFUSED)
    except (rollout.Failed, sqlite3.Error) as error:
        return complain(str(error), FAILED)
    except OSError as error:
        return complain(f"{one_line(str(error.filename or 'standard output'))}: {error.strerror}.", FAILED)


def complain(text: str, status: int) -> int:
    print(f"fwupdate-fleet: {text}", file=sys.stderr)
    return status


def say(text: str) -> None:
    print(text, flush=True)


def tell(text: str) -> None:
    print(f"fwupdate-fleet: {one_line(text)}", file=sys.stderr)


def opened(options: Options, path: str) -> State:
    """The state, with the logs read."""
    for log in options.logs:
        if not os.path.isfile(log):
            raise Refusal(f"log '{log}': there is no such file.", "Name the logs that nginx has written.")
    state = State(path)
    since = getattr(options, "since", None)
    if options.build and (since is not None or path == ":memory:") and options.build not in [b for _, b, _ in state.steps()]:
        state.add_step(since or 0, options.build, None)
    state.read(options.logs, tell)
    if options.forget:
        state.forget(int(options.forget))
    return state


def times(options: Options) -> report.Times:
    return report.Times(int(options.silent * report.HOUR), int(options.again * report.HOUR))


def chosen_build(options: Options, state: State) -> str | None:
    steps = state.steps()
    return str(options.build or steps[-1][1]) if options.build or steps else None


def report_command(options: Options) -> int:
    if not options.logs and options.state is None:
        raise Refusal("report: no log is named.", "Name the logs that nginx has written, or --state.")
    state = opened(options, options.state or ":memory:")
    found = write_files(options, state)
    say(json.dumps(found, indent=1) if options.json else report.text(found))
    return 0


def write_files(options: Options, state: State) -> dict[str, Any]:
    found = report.collect(state, chosen_build(options, state), times(options))
    if options.html is not None:
        rollout.replace(pathlib.Path(options.html), page.page(found, report.adoption(state)).encode())
    if options.prometheus is not None:
        rollout.replace(pathlib.Path(options.prometheus), metrics.render(found).encode())
    return found


def kept_state(options: Options) -> State:
    """The state for what changes something: the logs are those of nginx."""
    path = options.state or STATE
    if not pathlib.Path(path).parent.is_dir():
        raise Refusal(f"--state '{path}': there is no folder for it.", f"Make it: mkdir -p {pathlib.Path(path).parent}")
    options.logs = options.logs or sorted(glob.glob(LOGS))
    return opened(options, path)


def limits(options: Options) -> rollout.Limits:
    return rollout.Limits(options.updated, options.max_silent, options.max_taken_back, int(options.least))


def step(options: Options) -> int:
    state = kept_state(options)
    number_of_build = chosen_build(options, state)
    if number_of_build is None:
        raise Refusal("step: no rollout has begun.", "Give --build, the candidate's build number.")
    begun = [b for _, b, _ in state.steps()][-1:] == [number_of_build]
    share, now = options.percent, options.at or int(time.time())
    if share and begun and not options.force:
        bad, unknown = rollout.reasons(state, number_of_build, times(options), limits(options))
        if share > rollout.current(pathlib.Path(options.config)) and bad + unknown:
            return complain(f"build {number_of_build} is not offered to more routers:\n  "
                            + "\n  ".join(f"{reason}." for reason in bad + unknown)
                            + "\n--force takes the step all the same.", GATE)
    return take(options, state, number_of_build, share, now, "")


def take(options: Options, state: State, number_of_build: str, share: float, now: int, why: str) -> int:
    text = rollout.configuration(number_of_build, share)
    if options.dry_run:
        say(f"Would be written to {options.config}:\n{text.rstrip()}")
        return 0
    rollout.write(pathlib.Path(options.config), text, options.nginx, say)
    state.add_step(now, number_of_build, share, why)
    say(f"Build {number_of_build}: " + (f"offered to {share:g} % of the routers." if share else "paused."))
    return 0


def watch(options: Options) -> int:
    state = kept_state(options)
    number_of_build = chosen_build(options, state)
    now = options.at or int(time.time())
    status = 0
    if number_of_build is None or rollout.current(pathlib.Path(options.config)) == 0:
        say("No rollout is under way.")
    else:
        bad, unknown = rollout.reasons(state, number_of_build, times(options), limits(options))
        if bad:
            take(options, state, number_of_build, 0, now, "Paused: " + "; ".join(bad))
            complain(f"build {number_of_build} is paused:\n  " + "\n  ".join(f"{reason}." for reason in bad), GATE)
            status = GATE
        else:
            say(f"Build {number_of_build}: nothing speaks against it" + (f", but {unknown[0]}." if unknown else "."))
    write_files(options, state)
    return status


RUN: dict[str, Callable[[Options], int]] = {"report": report_command, "step": step, "watch": watch}
