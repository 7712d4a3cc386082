# SPDX-License-Identifier: ISC
"""Asks an update server as a router does, and compares every byte with the folder."""
from __future__ import annotations

import contextlib
import pathlib
import re
import socket
import ssl
import time
from typing import Callable, Iterator
from urllib.parse import urljoin

from ..refusal import one_line
from .addresses import ADDRESS
from .folder import Folder
from .manifest import ANSWER_LIMIT, MANIFEST, Manifest, parse

MANIFEST_TIME = 10  # seconds for the manifest, redirects and all; a router gives up then
SILENCE = 10  # seconds without a byte of the image
REDIRECTS = 30
HEAD_LIMIT = 65536
READ = 16384  # what a router's transfer library reads at once, and so the largest piece

# What a router sends, with facts that no router has.
QUERY = "?fw=0&version=verify&mac=00:00:00:00:00:00&ip=192.0.2.10&model={board}&sn={serial}&customid=&os=VOLKRAN"

# A manifest has to reach the router in one piece. The answer's head travels with it;
# together they should fit into one TCP segment, on a line with PPPoE and a tunnel too.
ONE_SEGMENT = 1360


class Mismatch(Exception):
    """The server does not serve what the folder holds."""

    def __init__(self, text: str) -> None:
        super().__init__(one_line(text))


class Answer:
    """One answer, read piece by piece as a router's transfer library does."""

    def __init__(self, url: str, connection: socket.socket, allow: Callable[[], float]) -> None:
        self.url, self.connection, self.allow = url, connection, allow
        self.buffer = b""
        self.status, self.reason, self.headers = self._head()
        while 100 <= self.status < 200:
            self.status, self.reason, self.headers = self._head()

    def broken(self, why: object) -> Mismatch:
        return Mismatch(f"{self.url}: the answer breaks off ({why}).")

    def _receive(self) -> bytes:
        try:
            self.connection.settimeout(self.allow())
            return self.connection.recv(READ)
        except OSError as error:
            raise self.broken(error or type(error).__name__) from None

    def _line(self) -> bytes:
        while b"\n" not in self.buffer:
            more = self._receive()
            if not more or len(self.buffer) > HEAD_LIMIT:
                raise self.broken("its head does not end")
            self.buffer += more
        line, _, self.buffer = self.buffer.partition(b"\n")
        self.head_size += len(line) + 1
        return line.rstrip(b"\r")

    def _head(self) -> tuple[int, str, dict[str, str]]:
        self.head_size = 0
        first = re.fullmatch(rb"HTTP/1\.[01] ([1-9][0-9][0-9])(?: (.*))?", self._line())
        if first is None:
            raise Mismatch(f"{self.url}: the answer is no HTTP/1.1.")
        headers = {}
        while line := self._line().decode("latin-1"):
            name, _, value = line.partition(":")
            headers[name.strip().lower()] = value.strip()
        return int(first.group(1)), (first.group(2) or b"").decode("latin-1"), headers

    def chunked(self) -> bool:
        return self.headers.get("transfer-encoding", "").lower() == "chunked"

    def length(self) -> int | None:
        text = self.headers.get("content-length", "")
        return int(text) if re.fullmatch("[0-9]{1,18}", text, re.ASCII) and not self.chunked() else None

    def pieces(self) -> Iterator[bytes]:
        """The body in the pieces in which a router gets it."""
        if self.chunked():
            while size := self._chunk_size():
                yield from self._counted(size)
                self._line()
        elif self.length() is None:
            while self.buffer or (more := self._receive()):
                piece, self.buffer = (self.buffer or more), b""
                yield piece
        else:
            yield from self._counted(self.length() or 0)

    def _chunk_size(self) -> int:
        word = self._line().split(b";")[0].strip()
        if not re.fullmatch(rb"[0-9A-Fa-f]{1,8}", word):
            raise self.broken("a chunk has no size")
        return int(word, 16)

    def _counted(self, left: int) -> Iterator[bytes]:
        while left:
            self.buffer = self.buffer or self._receive()
            if not self.buffer:
                raise self.broken(f"{left} bytes are missing")
            piece, self.buffer = self.buffer[:left], self.buffer[left:]
            left -= len(piece)
            yield piece


@contextlib.contextmanager
def asked(url: str, allow: Callable[[], float]) -> Iterator[Answer]:
    """Asks for `url` and follows redirects; Mismatch unless the answer is a 200. `allow`
    gives the seconds that the next step may take, and raises TimeoutError after the last."""
    for _ in range(REDIRECTS + 1):
        with contextlib.closing(connected(url, allow)) as connection:
            answer = Answer(url, connection, allow)
            location = answer.headers.get("location")
            if answer.status not in (301, 302, 303, 307, 308) or not location:
                if answer.status != 200:
                    raise Mismatch(f"{url}: the server answers {answer.status} {answer.reason};"
                                   " it should answer 200.")
                yield answer
                return
            url = urljoin(url, location).partition("#")[0]
    raise Mismatch(f"{url}: the server sends from one address to the next, more than {REDIRECTS} times.")


def connected(url: str, allow: Callable[[], float]) -> socket.socket:
    """A connection with the request sent: exactly a router's header lines, no user agent,
    no word about encodings."""
    parts = ADDRESS.fullmatch(url)
    if parts is None:
        raise Mismatch(f"{url}: this is no http:// or https:// address.")
    secure, place, path = parts.group(1) == "https", parts.group(2), (parts.group(3) or "/") + parts.group(4)
    host, _, port = place.rpartition(":") if re.search(r":[0-9]+$", place) else (place, "", "")
    request = f"GET {path} HTTP/1.1\r\nHost: {place}\r\nAccept: */*\r\n\r\n"
    try:
        connection = socket.create_connection((host.strip("[]"), int(port or (443 if secure else 80))), allow())
        try:
            connection.settimeout(allow())
            if secure:
                connection = ssl.create_default_context().wrap_socket(connection, server_hostname=host.strip("[]"))
            connection.sendall(request.encode("latin-1", "replace"))
            return connection
        except BaseException:
            connection.close()
            raise
    except (OSError, ValueError) as error:
        raise Mismatch(f"{url}: the server could not be asked ({error or type(error).__name__}).") from None


def within(seconds: float) -> Callable[[], float]:
    """What is left of the seconds, from now on."""
    end = time.monotonic() + seconds

    def left() -> float:
        rest = end - time.monotonic()
        if rest <= 0:
            raise TimeoutError(f"a router gives up after {seconds:g} seconds")
        return rest
    return left


def check_encoding(answer: Answer) -> None:
    encoding = answer.headers.get("content-encoding", "identity")
    if encoding.lower() != "identity":
        raise Mismatch(f"{answer.url}: the server sends it as {encoding}, which routers do not"
                       " unpack; switch compression off.")


def compare(answer: Answer, position: int, got: bytes, wanted: bytes, path: pathlib.Path) -> None:
    if got != wanted:
        same = next((i for i, (a, b) in enumerate(zip(got, wanted)) if a != b), min(len(got), len(wanted)))
        raise Mismatch(f"{answer.url}: byte {position + same} differs from the file {path}.")


def verify_manifest(url: str, query: str, path: pathlib.Path, say: Callable[[str], object]) -> None:
    wanted = path.read_bytes()
    with asked(url + query, within(MANIFEST_TIME)) as answer:
        check_encoding(answer)
        pieces = list(answer.pieces())
    got = b"".join(pieces)
    if got != wanted:
        say_what_is_offered(answer, got, wanted)
    if len(got) != len(wanted):
        raise Mismatch(f"{answer.url}: the server sends {len(got)} bytes; the file {path} has {len(wanted)}.")
    compare(answer, 0, got, wanted, path)
    if len(pieces) > 1:
        raise Mismatch(f"{answer.url}: the manifest arrives in {len(pieces)} pieces; a router keeps the last one"
                       " only. The server has to send it whole, in one write.")
    say(f"{url}: the manifest, {len(got)} bytes, is as in the folder.")
    if url.startswith("http:") and answer.head_size + len(got) > ONE_SEGMENT:
        say(f"Warning: the answer's head and the manifest have {answer.head_size + len(got)} bytes together."
            f" Beyond {ONE_SEGMENT} the manifest may reach a router in two pieces, and then it is of"
            " no use; shorten the notes or the server's header lines.")


def say_what_is_offered(answer: Answer, got: bytes, wanted: bytes) -> None:
    """Another manifest than the folder's is not a spoiled one: the server chose by the question."""
    try:
        offered, own = parse(got[:ANSWER_LIMIT]), parse(wanted)
    except ValueError:
        return
    if offered.build != own.build:
        raise Mismatch(f"{answer.url}: the server offers build {offered.build} ({offered.version}), the folder has"
                       f" {own.build}. It chooses by board name and serial number; --board and --serial give them.")


def verify_image(manifest: Manifest, path: pathlib.Path, say: Callable[[str], object]) -> None:
    size = path.stat().st_size
    with asked(manifest.url, lambda: SILENCE) as answer, open(path, "rb") as file:
        check_encoding(answer)
        length = answer.length()
        if length is None:
            raise Mismatch(f"{answer.url}: the server does not announce the size. A download without"
                           " Content-Length is never complete for a router.")
        if length != size:
            raise Mismatch(f"{answer.url}: the server announces {length} bytes; the file {path} has {size}.")
        position = 0
        for piece in answer.pieces():
            compare(answer, position, piece, file.read(len(piece)), path)
            position += len(piece)
    say(f"{manifest.url}: the image, {size} bytes, is as in the folder.")


def verify(url: str, folder: Folder, board: str, serial: str, say: Callable[[str], object]) -> None:
    """Raises Mismatch, or says what was compared. Asks as the router with this board name
    and serial number would; a router sends the board name in upper case."""
    current = folder.current()
    if current is None:
        raise Mismatch(f"the folder '{folder.path}' has no manifest.")
    image = folder.image(current)
    if not image.is_file():
        raise Mismatch(f"the folder '{folder.path}' has no image '{image}'.")
    query = QUERY.format(board=board.upper().replace(" ", "-"), serial=serial)
    verify_manifest(url, query, folder.path / MANIFEST, say)
    verify_image(current, image, say)
