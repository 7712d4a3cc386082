# SPDX-License-Identifier: ISC
"""What a rollout costs when something goes wrong. The routers are on paper: each writes the
lines that it would; steps and pauses are those of the real fwupdate-fleet."""
import contextlib
import io
import math
import random

from fwupdate_maker.fleet import command_line

from fleet_parts.lines import question, stamp
from fleet_parts.shares import reached

START, HOUR, DAY = 1763769600, 3600, 86400
OLD, NEW = "171000000", "174200000"
ROUTERS = 10_000
STEPS = (1, 10, 50, 100)
LOOK = 4  # hours between two looks of `watch`
LIMIT = 14 * 24  # hours after which a rollout is not waited for any more


class Paper:
    """Routers that ask once a day. `fate` says what the new build does to one."""

    def __init__(self, folder, fate, down=(), steps=STEPS):
        self.folder, self.fate, self.down, self.steps = folder, fate, down, steps
        chance = random.Random(5)
        self.serials = [f"{chance.randrange(16 ** 8):08X}" for _ in range(ROUTERS)]
        self.build = dict.fromkeys(self.serials, OLD)
        self.by_hour = [[sn for n, sn in enumerate(self.serials) if n % 24 == hour] for hour in range(24)]
        self.dead, self.hit, self.later = set(), set(), {}
        self.share, self.paused = 0, None
        self.config = folder / "rollout.conf"
        self.logs = [folder / f"server{n}.log" for n in range(2)]

    def call(self, *words):
        said = io.StringIO()
        with contextlib.redirect_stdout(said), contextlib.redirect_stderr(said):
            status = command_line.main([*map(str, words), "--state", str(self.folder / "state.db"),
                                        "--config", str(self.config), "--nginx", "true"])
        assert status in (0, 3), said.getvalue()
        return status, said.getvalue()

    def hour(self, number):
        """What is asked within this hour, in the logs of two servers."""
        now = START + number * HOUR
        asked = [(now + n % HOUR, sn) for n, sn in enumerate(self.by_hour[number % 24])]
        asked += [(now + HOUR - 1, sn) for sn in self.later.pop(number, ())]
        lines = [[], []]
        for at, sn in sorted(asked):
            server = ord(sn[-1]) % 2
            if sn not in self.dead and (server, number) not in self.down:
                lines[server].append(self.question(at, number, sn))
        for path, texts in zip(self.logs, lines):
            with open(path, "a") as log:
                log.writelines(texts)

    def question(self, at, number, sn):
        candidate = self.share > 0 and reached(sn, self.share, NEW)
        text = question(at, sn, self.build[sn], "candidate" if candidate else "stable")
        if candidate and self.build[sn] == OLD:
            self.hit.add(sn)
            self.fate(self, sn, number)
        return text

    def roll(self):
        """Until all steps are taken and seen, or the rollout is paused. Returns the hours."""
        waiting = list(self.steps)
        for number in range(LIMIT):
            if number % LOOK == 0:
                at = ("--at", stamp(START + number * HOUR))
                logs = [path for path in self.logs if path.exists()]
                status, said = self.call("watch", *logs, *at) if number else (0, "")
                if status == 3:
                    self.share, self.paused = 0, said
                    return number
                if waiting and self.call("step", waiting[0], *logs, "--build", NEW, *at)[0] == 0:
                    self.share = waiting.pop(0)
            if not waiting and all(self.build[sn] == NEW for sn in self.serials if sn not in self.dead):
                return number
            self.hour(number)
        return LIMIT


def good(paper, sn, _):
    paper.build[sn] = NEW


def brick(paper, sn, _):
    paper.dead.add(sn)


def guarded(paper, sn, number):
    """The boot loader brings the old firmware back within minutes; it asks an hour later."""
    paper.later.setdefault(number + 1, []).append(sn)


def refused(_paper, _sn, _number):
    """The image is damaged: it is downloaded, refused, and asked for again the next day."""


def play(folder, say):
    chance()
    outages = {(0, hour) for hour in range(30, 54)}
    cases = [
        ("a good build", good, (), STEPS),
        ("the same, and one of two servers is down from hour 30 to 54", good, outages, STEPS),
        ("an image that does not come back", brick, (), STEPS),
        ("the same, with a first step of 10 %", brick, (), STEPS[1:]),
        ("the same, with the guard", guarded, (), STEPS),
        ("a candidate that is refused", refused, (), STEPS)]
    for number, (name, fate, down, steps) in enumerate(cases):
        place = folder / str(number)
        place.mkdir()
        paper = Paper(place, fate, down, steps)
        hours = paper.roll()
        have = sum(build == NEW for build in paper.build.values())
        if paper.paused is None:
            assert fate is good and have == ROUTERS, (name, have)
            say(f"{name}: {have:,} of {ROUTERS:,} have it after {hours} hours; no pause.")
        else:
            assert fate is not good, (name, paper.paused)
            say(f"{name}: paused after {hours} hours at {steps[0]} %; {len(paper.hit):,} routers were reached"
                f" ({100 * len(paper.hit) / ROUTERS:.1f} %), {len(paper.dead):,} are gone.")
    return 0


def chance():
    """The share of serial numbers by chance that a step reaches."""
    numbers = random.Random(3)
    for percent in STEPS[:-1]:
        count = 100_000
        share = sum(reached(f"{numbers.randrange(16 ** 10):010X}", percent, NEW) for _ in range(count)) / count
        error = 1.96 * math.sqrt(share * (1 - share) / count)
        print(f"{percent:3} %: {100 * share:.2f} % of {count:,} serial numbers by chance,"
              f" 95 % confidence from {100 * (share - error):.2f} to {100 * (share + error):.2f}.", flush=True)
        assert abs(share - percent / 100) < 2 * error, share
