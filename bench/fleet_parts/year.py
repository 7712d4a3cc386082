# SPDX-License-Identifier: ISC
"""A year of 100,000 routers on paper: seven builds, one of which is paused, routers that
come and go. Each asks once a week, so that it is done in minutes."""
import random
import time

from fwupdate_maker.fleet import page, report as reports
from fwupdate_maker.fleet.state import State

from fleet_parts.lines import question
from fleet_parts.shares import reached

START, DAY = 1763769600 - 364 * 86400, 86400
ROUTERS, WEEKS = 100_000, 52
MODELS = ("QOR,MODEL-X",) * 6 + ("QOR,MODEL-Y",) * 3 + ("QOR,MODEL-Z",)
# The week in which a rollout begins, its build, and how far it comes in the weeks after.
ROLLOUTS = ((3, "171500000", (10, 50, 100)), (11, "172000000", (10, 50, 100)), (19, "172500000", (10, 0)),
            (21, "172510000", (10, 50, 100)), (31, "173000000", (1, 10, 50, 100)), (40, "173500000", (1, 10, 50, 100)),
            (49, "174200000", (1, 10, 50)))
BAD = "172500000"


def shares():
    """{week: (build, percent)}; a build stays offered to all until the next one."""
    found, build, percent = {}, "", 0
    plan = {week + n: (b, p) for week, b, steps in ROLLOUTS for n, p in enumerate(steps)}
    for week in range(WEEKS):
        build, percent = plan.get(week, (build, percent))
        found[week] = (build, percent)
    return found


def report_year(folder, state, say):
    chance = random.Random(11)
    builds = ["171000000"] * ROUTERS
    first = [0 if chance.random() < 0.8 else chance.randrange(WEEKS) for _ in range(ROUTERS)]
    last = [WEEKS if chance.random() < 0.96 else chance.randrange(f, WEEKS + 1) for f in first]
    never = [chance.random() < 0.004 for _ in range(ROUTERS)]  # their flash is full, or their user says no
    lines, before = 0, ("", 0)
    for week, (build, percent) in shares().items():
        if (build, percent) != before:
            state.add_step(START + week * 7 * DAY, build, percent, "Paused: 31.0 % have taken it back" if build == BAD and not percent else "")
            before = (build, percent)
        log = folder / f"{week}.log"
        with open(log, "w") as file:
            for r in range(ROUTERS):
                if not first[r] <= week < last[r]:
                    continue
                sn = f"SN{r:06}"
                candidate = percent > 0 and reached(sn, percent, build)
                at = START + week * 7 * DAY + r * 6 * DAY // ROUTERS + chance.randrange(3600)
                offer, model, address = "candidate" if candidate else "stable", MODELS[r % 10], f"10.{r >> 16}.{r >> 8 & 255}.{r & 255}"
                file.write(question(at, sn, builds[r], offer, model, address))
                lines += 1
                if candidate and builds[r] != build and not never[r]:
                    if build == BAD and chance.random() < 0.3:
                        file.write(question(at + 600, sn, build, offer, model, address))
                        file.write(question(at + 1200, sn, builds[r], offer, model, address))
                    else:
                        builds[r] = build
        state.read([str(log)], say)
        log.unlink()
    return lines


def report(folder, target, say):
    state = State(str(folder / "state.db"))
    begun = time.monotonic()
    lines = report_year(folder, state, say)
    times = reports.Times(silent=10 * DAY, again=2 * 3600)
    written = time.monotonic()
    text = page.page(reports.collect(state, ROLLOUTS[-1][1], times), reports.adoption(state))
    target.write_text(text)
    say(f"{lines:,} lines written and read in {written - begun:.0f} s; the page took {time.monotonic() - written:.1f} s;"
        f" the state has {(folder / 'state.db').stat().st_size / 1e6:.0f} MB.")
    return 0
