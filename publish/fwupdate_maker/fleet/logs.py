# SPDX-License-Identifier: ISC
"""Reads access logs in the format of publish/server/update.conf, each line once.

    TIME STATUS BYTES sn=SERIAL fw=BUILD model=BOARD OFFER ADDRESS PATH    a tab between them

A query is whatever a stranger sends. What no router can send is counted and left out, so
that all that is kept is short, printable and without blanks.
"""
from __future__ import annotations

import collections
import contextlib
import datetime
import gzip
import hashlib
import re
import zlib
from typing import BinaryIO, Dict, Iterator, List, Tuple

CUT = (EOFError, zlib.error, gzip.BadGzipFile)  # what a gzipped file says that is not whole
READ = 1 << 20
LINE_LIMIT = 32768  # nginx takes no longer request
GROUPS_LIMIT = 200_000  # kept in memory at once, some 700 bytes each
MANIFEST = b"/update.xml"
NAMELESS = (b"sn=-\t", b"sn=\t")  # nginx writes "-" for what the query does not have
FACT = re.compile(rb"[!-\[\]-~]{1,31}")  # what a router has room for; nginx writes other bytes with a backslash
BUILD = re.compile(rb"[0-9]{0,15}|-")
ADDRESS = re.compile(rb"[0-9a-fA-F.:]{2,45}|unix:")
IMAGE = re.compile(rb".*/releases/([1-9][0-9]{0,8})/[^/]+")

# All that follows the number of bytes says who asked for what. Lines that agree in it are
# counted together: first and last time, number.
Groups = Dict[bytes, List]  # type: ignore[type-arg]
Downloads = Dict[Tuple[bytes, bytes, bytes], int]


class Batch:
    """What some lines say. `images` counts (path, status, bytes), `refused` other
    answers than 200, `strange` lines that no router can have caused."""

    def __init__(self) -> None:
        self.groups: Groups = {}
        self.images: Downloads = collections.Counter()
        self.lines = 0
        self.strange = 0

    def add(self, lines: list[bytes]) -> None:
        groups = self.groups
        for line in lines:
            parts = line.split(b"\t", 3)
            if len(parts) != 4:
                self.strange += 1
                continue
            time, status, size, who = parts
            if who.startswith(NAMELESS):
                path = who.rpartition(b"\t")[2]
                if b"/releases/" in path:
                    self.images[path, status, size] += 1
                    continue
            group = groups.get(who)
            if group is None:
                groups[who] = [time, time, 1]
            else:
                group[1] = time
                group[2] += 1
        self.lines += len(lines)


class Times:
    """The seconds since 1970 of a log's times; the hours are remembered."""

    def __init__(self) -> None:
        self.hours: dict[bytes, int] = {}

    def seconds(self, text: bytes) -> int:
        """ValueError when it is no time."""
        key = text[:14] + text[19:]
        base = self.hours.get(key)
        if base is None:
            if len(self.hours) > 100_000:
                self.hours.clear()
            whole = datetime.datetime.fromisoformat(text[:14].decode("ascii") + "00:00" + text[19:].decode("ascii"))
            if whole.tzinfo is None:
                raise ValueError("no time zone")
            base = self.hours[key] = int(whole.timestamp())
        if text[14:19].translate(None, b"0123456789") != b":":
            raise ValueError("no minutes and seconds")
        return base + 60 * int(text[14:16]) + int(text[17:19])


class Log:
    """One file. `mark` is the same after a rotation and when it is compressed."""

    def __init__(self, path: str) -> None:
        self.path = path
        self.mark = ""
        self.cut = False
        with self.opened() as file, contextlib.suppress(*CUT):
            first = file.readline(LINE_LIMIT)
            if first.endswith(b"\n"):
                self.mark = hashlib.sha256(first).hexdigest()

    @contextlib.contextmanager
    def opened(self) -> Iterator[BinaryIO]:
        with open(self.path, "rb") as plain:
            packed = plain.read(2) == b"\x1f\x8b"
            plain.seek(0)
            if packed:
                with gzip.GzipFile(fileobj=plain) as file:
                    yield file  # type: ignore[misc]
            else:
                yield plain

    def chunks(self, offset: int) -> Iterator[tuple[list[bytes], int]]:
        """Whole lines from there on, some at a time, and where they end. A last line
        without an end is still being written."""
        with self.opened() as file:
            try:
                file.seek(offset)
            except CUT:
                self.cut = True
                return
            rest = b""
            while data := self._read(file):
                lines = (rest + data).split(b"\n")
                rest = lines.pop()
                if len(rest) > LINE_LIMIT:
                    lines.append(b"")
                    offset += len(rest) - 1
                    rest = b""
                offset += sum(map(len, lines)) + len(lines)
                if lines:
                    yield lines, offset

    def _read(self, file: BinaryIO) -> bytes:
        try:
            return file.read1(READ)  # type: ignore[attr-defined, no-any-return]
        except CUT:
            self.cut = True
            return b""
