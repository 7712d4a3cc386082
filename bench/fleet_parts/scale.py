# SPDX-License-Identifier: ISC
"""How long fwupdate-fleet takes for a day of 100,000 routers, beside awk that counts the
same; and what a million routers need."""
import os
import random
import statistics
import subprocess
import time

from simulated_router import PROJECT

from fleet_parts.lines import question

START, DAY = 1763769600, 86400
OLD, NEW = "171000000", "174200000"
RUNS = 3
COUNT = r"""
{ sn = $4; last[sn] = $5; model[sn] = $6
  if ($7 == "candidate" && $5 != "fw=174200000") { if (!(sn in at)) at[sn] = $1; again[sn] = $1 }
  if (!((sn, $8) in pair)) { pair[sn, $8]; addresses[sn]++ } }
END { for (sn in last) { builds[model[sn] " " last[sn]]++; shared += addresses[sn] > 1 }
  for (sn in at) if (last[sn] == "fw=174200000") updated++; else if (again[sn] > at[sn]) stuck++
  for (b in builds) print b, builds[b]
  print updated + 0, stuck + 0, shared + 0 }
"""


def write_day(path, routers, questions, day=0):
    """A day's log: each router asks so often, at even times; one in ten is a candidate's."""
    chance = random.Random(1)
    every = DAY // questions
    times = sorted((chance.randrange(every) + n * every, r) for r in range(routers) for n in range(questions))
    with open(path, "w") as log:
        for at, r in times:
            candidate = r % 10 == 0
            fw = NEW if candidate and (at > DAY // 2 or day) else OLD
            log.write(question(START + day * DAY + at, f"SN{r:07}", fw, "candidate" if candidate else "stable",
                               f"QOR,MODEL-{'XYZ'[r % 3]}", f"10.{r >> 16 & 255}.{r >> 8 & 255}.{r & 255}"))


def run(*words):
    """(seconds of work, seconds on the clock, peak memory in MB)"""
    begun = time.monotonic()
    process = subprocess.Popen(words, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    assert status == 0, words
    return usage.ru_utime + usage.ru_stime, time.monotonic() - begun, usage.ru_maxrss / 1024


def measure(folder):
    fleet = str(PROJECT / "publish/fwupdate-fleet")
    log = folder / "day.log"
    write_day(log, 100_000, 5)
    results = {"awk": [], "fwupdate-fleet": []}
    for _ in range(RUNS):  # in turn, so that both see the same weather
        results["awk"].append(run("awk", "-F\t", COUNT, str(log)))
        results["fwupdate-fleet"].append(run(fleet, "report", str(log), "--build", NEW))
    print("| what | seconds of work | on the clock | memory, MB |\n|---|---|---|---|")
    for name, rows in results.items():
        row(f"100,000 routers' day, 500,000 lines: {name}", rows)
    state = folder / "state.db"
    for day in (0, 1):
        write_day(log, 1_000_000, 1, day)
        row(f"1,000,000 routers, one line each, night {day + 1}", [run(fleet, "report", str(log), "--build", NEW,
                                                                      "--state", str(state))])
    print(f"\nThe state of a million routers: {state.stat().st_size / 1e6:.0f} MB.")
    work = {name: statistics.median(w for w, _, _ in rows) for name, rows in results.items()}
    ratio = work["fwupdate-fleet"] / work["awk"]
    print(f"fwupdate-fleet takes {ratio:.2f} times the work of awk; twice is the most that it may take.")
    return 0 if ratio <= 2 else 1


def row(name, results):
    work, clock, memory = (statistics.median(values) for values in zip(*results))
    print(f"| {name} | {work:.1f} | {clock:.1f} | {memory:.0f} |", flush=True)
