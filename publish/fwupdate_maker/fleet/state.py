# SPDX-License-Identifier: ISC
"""What is known of each router, in an SQLite file, so that a log is read once.

A row of `asked` says that a router asked with a build while an offer was made to it: from
when, until when, how often. First and last times do not depend on the order in which lines
come, so that the logs of several servers are read one after the other.
"""
from __future__ import annotations

import datetime
import sqlite3
from typing import Callable, Iterable, Tuple

from ..refusal import Refusal
from .logs import ADDRESS, BUILD, FACT, GROUPS_LIMIT, IMAGE, MANIFEST, NAMELESS, Batch, Log, Times

VERSION = 1
SCHEMA = f"""
PRAGMA user_version = {VERSION};
CREATE TABLE asked (
	serial TEXT, build TEXT,       -- the router, and what it runs
	offer TEXT,                    -- the build of the rollout that it was in, or ''
	model TEXT, first INT, last INT, times INT,
	PRIMARY KEY (serial, build, offer)) WITHOUT ROWID;
CREATE TABLE steps (at INT PRIMARY KEY, build TEXT, percent REAL, why TEXT);
CREATE TABLE logs (mark TEXT PRIMARY KEY, offset INT);
CREATE TABLE shared (serial TEXT PRIMARY KEY, addresses INT, last INT);
CREATE TABLE unserved (model TEXT PRIMARY KEY, times INT, last INT);
CREATE TABLE images (build TEXT, status TEXT, bytes INT, times INT, PRIMARY KEY (build, status, bytes));
CREATE TABLE counted (what TEXT PRIMARY KEY, number INT);
INSERT INTO counted VALUES ('lines', 0), ('strange', 0), ('latest', 0), ('nameless', 0);
"""
Row = Tuple[str, str, str, str, int, int, int]  # of `asked`
STRANGERS_LIMIT = 1000  # models without a manifest that are kept; anybody can send new ones


class State:
    def __init__(self, path: str) -> None:
        try:
            self.db = sqlite3.connect(path)
            self.db.execute("PRAGMA synchronous = NORMAL")
            version = self.db.execute("PRAGMA user_version").fetchone()[0]
            if version == 0:
                self.db.executescript(SCHEMA)
        except sqlite3.Error as error:
            raise Refusal(f"--state '{path}': {error}.", "Name a file that fwupdate-fleet wrote, or a new one.") from None
        if version not in (0, VERSION):
            raise Refusal(f"--state '{path}': it is of version {version}, this program reads {VERSION}.",
                          "Give another file, and read the logs again.")
        self.times = Times()

    def rows(self, query: str, **values: object) -> list[tuple]:  # type: ignore[type-arg]
        return self.db.execute(query, values).fetchall()

    def value(self, query: str, **values: object) -> int:
        row = self.db.execute(query, values).fetchone()
        return (row[0] or 0) if row else 0

    def counted(self, what: str) -> int:
        return self.value("SELECT number FROM counted WHERE what = :what", what=what)

    # The rollout's steps

    def steps(self) -> list[tuple]:  # type: ignore[type-arg]
        return self.rows("SELECT at, build, percent FROM steps ORDER BY at")

    def add_step(self, at: int, build: str, percent: float | None, why: str = "") -> None:
        with self.db:
            self.db.execute("INSERT OR REPLACE INTO steps VALUES (?, ?, ?, ?)", (at, build, percent, why))

    # Reading

    def read(self, paths: Iterable[str], tell: Callable[[str], object]) -> None:
        for path in paths:
            log = Log(path)
            if not log.mark:
                continue
            offset = self.value("SELECT offset FROM logs WHERE mark = :mark", mark=log.mark)
            with self.db:  # all of a file's lines, or none
                end = self._read_log(log, offset)
                self.db.execute("INSERT OR REPLACE INTO logs VALUES (?, ?)", (log.mark, end))
            if log.cut:
                tell(f"{path}: it is cut; what was before that is read.")

    def _read_log(self, log: Log, offset: int) -> int:
        batch = Batch()
        changes = [(at, build) for at, build, _ in self.steps()]
        offer: str = ""
        change: bytes | None = None  # no line is read yet, so the time is not known
        for lines, offset in log.chunks(offset):
            start = at = 0
            if change is None:
                offer, change = self._offer_at(lines, changes)
            while change and lines[-1][:19] >= change:
                at = next((i for i in range(at, len(lines)) if lines[i][:19] >= change), len(lines))
                then, after = self._offer_at(lines[at:at + 1], changes)
                if after is None:  # no time stands there, or the lines are at their end
                    at += 1
                    if at >= len(lines):
                        break
                    continue
                # The lines before the change belong to the offer of before.
                batch.add(lines[start:at])
                self._merge(batch, offer)
                batch, start, offer, change = Batch(), at, then, after
                at += 1
            batch.add(lines[start:] if start else lines)
            if len(batch.groups) > GROUPS_LIMIT:
                self._merge(batch, offer)
                batch = Batch()
        self._merge(batch, offer)
        return offset

    def _offer_at(self, lines: list[bytes], changes: list[tuple[int, str]]) -> tuple[str, bytes | None]:
        """The offer at the first line's time, and when it changes next, as the log would
        write it: b"" for never, None where no line has a readable time."""
        for line in lines:
            try:
                now = self.times.seconds(line[:25])
            except ValueError:
                continue
            offer = ([build for at, build in changes if at <= now] or [""])[-1]
            later = [at for at, _ in changes if at > now]
            return offer, as_logged(later[0], line[19:25]) if later else b""
        return "", None

    def _merge(self, batch: Batch, offer: str) -> None:
        asked, addresses, strange, nameless = self._rows(batch, offer)
        db = self.db
        asked.sort()
        db.executemany("INSERT INTO asked VALUES (?, ?, ?, ?, ?, ?, ?) ON CONFLICT DO UPDATE SET model = excluded.model,"
                       " first = min(first, excluded.first), last = max(last, excluded.last),"
                       " times = times + excluded.times", asked)
        db.executemany("INSERT INTO shared VALUES (?, ?, ?) ON CONFLICT DO UPDATE SET"
                       " addresses = max(addresses, excluded.addresses), last = max(last, excluded.last)",
                       [(serial, len(found), last) for serial, (found, last) in addresses.items() if len(found) > 1])
        for (path, status, size), times in batch.images.items():
            image = IMAGE.fullmatch(path)
            if image and size.isdigit() and status.isdigit() and len(size) < 12:
                db.execute("INSERT INTO images VALUES (?, ?, ?, ?) ON CONFLICT DO UPDATE SET times = times + excluded.times",
                           (image.group(1).decode(), status.decode(), int(size), times))
        latest = max((row[5] for row in asked), default=0)
        db.executemany("UPDATE counted SET number = number + ? WHERE what = ?",
                       [(batch.lines, "lines"), (batch.strange + strange, "strange"), (nameless, "nameless")])
        db.execute("UPDATE counted SET number = max(number, ?) WHERE what = 'latest'", (latest,))

    def _rows(self, batch: Batch, offer: str) -> tuple[list[Row], dict[str, tuple[set[bytes], int]], int, int]:
        asked: list[Row] = []
        strange, nameless = 0, 0
        one: dict[str, bytes] = {}  # the address of most; a set only for those with more
        several: dict[str, tuple[set[bytes], int]] = {}
        seconds, fact, number, place = self.times.seconds, FACT.fullmatch, BUILD.fullmatch, ADDRESS.fullmatch
        for who, (first, last, times) in batch.groups.items():
            try:
                sn, fw, model, channel, address, path = who.split(b"\t")
                start, end = seconds(first), seconds(last)
            except ValueError:
                strange += times
                continue
            if not path.endswith(MANIFEST) or model in (b"model=-", b"model=") and who.startswith(NAMELESS):
                continue  # a manifest that a cache or a person asked for
            if not number(fw, 3) or not fact(model, 6) or not place(address) or len(sn) > 3 and not fact(sn, 3):
                strange += times
                continue
            if channel == b"nothing" or path == b"/nothing/update.xml":
                self._nothing(model[6:].decode(), times, end)
                continue
            if who.startswith(NAMELESS):
                nameless += times
                continue
            serial = sn[3:].decode()
            asked.append((serial, fw[3:].decode(), offer if channel == b"candidate" else "", model[6:].decode(),
                          start, end, times))
            if one.setdefault(serial, address) != address:
                found, until = several.get(serial, ({one[serial]}, 0))
                several[serial] = (found | {address}, max(until, end))
        return asked, several, strange, nameless

    def _nothing(self, model: str, times: int, last: int) -> None:
        known = self.value("SELECT count(*) FROM unserved")
        if known < STRANGERS_LIMIT or self.value("SELECT 1 FROM unserved WHERE model = :model", model=model):
            self.db.execute("INSERT INTO unserved VALUES (?, ?, ?) ON CONFLICT DO UPDATE SET times = times + excluded.times,"
                            " last = max(last, excluded.last)", (model, times, last))

    def forget(self, days: int) -> None:
        """Routers that have not asked for so long; strangers' inventions go this way too."""
        before = self.counted("latest") - 86400 * days
        with self.db:
            self.db.execute("DELETE FROM asked WHERE serial IN (SELECT serial FROM asked GROUP BY serial"
                            " HAVING max(last) < ?)", (before,))
            for table in ("shared", "unserved"):
                self.db.execute(f"DELETE FROM {table} WHERE last < ?", (before,))


def as_logged(at: int, zone: bytes) -> bytes:
    """The time as a log in this zone begins its lines, without the zone."""
    offset = datetime.datetime.fromisoformat("2000-01-01T00:00:00" + zone.decode("ascii")).tzinfo
    return datetime.datetime.fromtimestamp(at, offset).strftime("%Y-%m-%dT%H:%M:%S").encode()
