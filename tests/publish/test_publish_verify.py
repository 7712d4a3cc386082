# SPDX-License-Identifier: ISC
"""--verify: asks as a router does, and finds whatever a server may do to the files."""
import http.server
import pathlib
import socket
import threading
import time

import pytest
from fwupdate_maker.publisher import verify as verifying
from make_images import uimage
from simulated_router import wait_until


class Server(http.server.ThreadingHTTPServer):
    """Serves a folder on loopback. `spoil` may change an answer: it is given the path
    and (status, headers, body) and returns the same."""

    def __init__(self):
        super().__init__(("127.0.0.1", 0), Handler)
        self.root = None
        self.spoil = lambda path, status, headers, body: (status, headers, body)
        self.requests = []

    @property
    def url(self):
        return f"http://127.0.0.1:{self.server_port}"


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.server.requests.append((self.path, dict(self.headers)))
        path = self.path.split("?")[0]
        file = pathlib.Path(self.server.root, path.lstrip("/"))
        status, body = (200, file.read_bytes()) if file.is_file() else (404, b"gone")
        headers = {"Content-Length": str(len(body))}
        status, headers, body = self.server.spoil(path, status, headers, body)
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name, value)
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


class RawServer:
    """Answers each connection with the pieces it is given, each sent when the one before
    was read, and then closes."""

    def __init__(self, *pieces, wait=None):
        self.pieces, self.wait = pieces, wait
        self.socket = socket.create_server(("127.0.0.1", 0))
        self.thread = threading.Thread(target=self.serve)

    def __enter__(self):
        self.thread.start()
        return f"http://127.0.0.1:{self.socket.getsockname()[1]}"

    def __exit__(self, *_):
        if self.wait:
            self.wait.set()
        self.thread.join()
        self.socket.close()

    def serve(self):
        with self.socket.accept()[0] as connection:
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            connection.recv(65536)
            for piece in self.pieces:
                connection.sendall(piece)
                wait_until(lambda: unread(connection) == 0, "the piece is read")
            if self.wait:
                self.wait.wait(30)


def unread(connection):
    """How many bytes that were sent the other side has not taken yet (its queue is on this machine)."""
    here, there = connection.getsockname()[1], connection.getpeername()[1]
    for line in open("/proc/net/tcp"):
        words = line.split()
        if words[1].endswith(f":{there:04X}") and words[2].endswith(f":{here:04X}"):
            return int(words[4].split(":")[1], 16)
    return 0


OK = b"HTTP/1.1 200 OK\r\n"


def raw_verify(publisher, *pieces, manifest=None, wait=None, url_path="/update.xml"):
    """The manifest from a raw server; the image is asked for elsewhere and is not there."""
    assert publisher.publish(url="http://127.0.0.1:1").returncode == 0
    xml = (publisher.out / "update.xml").read_bytes()
    with RawServer(*[piece.replace(b"XML", xml) if isinstance(piece, bytes) else piece(xml) for piece in pieces],
                   wait=wait) as url:
        return publisher.run("verify", url + url_path, "--out", publisher.out)


@pytest.fixture
def server(publisher):
    with Server() as server:
        server.root = publisher.out
        thread = threading.Thread(target=server.serve_forever, args=(0.01,))
        thread.start()
        yield server
        server.shutdown()
        thread.join()


def publish(publisher, server, **options):
    return publisher.publish(url=server.url, verify=server.url + "/update.xml", **options)


def test_what_is_served_as_it_is_passes(publisher, server):
    result = publish(publisher, server)
    assert result.returncode == 0, result.text
    assert "the manifest, " in result.text and "the image, 664 bytes, is as in the folder" in result.text


def test_asks_as_a_router_does(publisher, server):
    publish(publisher, server)
    path, headers = server.requests[0]
    assert path == ("/update.xml?fw=0&version=verify&mac=00:00:00:00:00:00&ip=192.0.2.10&model=MODEL-X"
                    "&sn=verify&customid=&os=VOLKRAN")
    assert sorted(headers) == ["Accept", "Host"]
    assert server.requests[1][0] == "/releases/174200000/firmware.bin"


def test_alone_and_after_a_rollback(publisher, server):
    assert publish(publisher, server).returncode == 0
    assert publish(publisher, server, build="174200001").returncode == 0
    manifest = server.url + "/update.xml"
    assert publisher.run("--verify", manifest, "--out", publisher.out).returncode == 0
    assert publisher.run("rollback", "--verify", manifest, "--out", publisher.out).returncode == 0
    assert "releases/174200000" in server.requests[-1][0]


def change(path_end, **changes):
    def spoil(path, status, headers, body):
        if path.endswith(path_end):
            status = changes.get("status", status)
            body = changes["body"](body) if "body" in changes else body
            headers = {**headers, "Content-Length": str(len(body)), **changes.get("headers", {})}
            headers = {k: v for k, v in headers.items() if v is not None}
        return status, headers, body
    return spoil


@pytest.mark.parametrize("spoil, reason", [
    (change("update.xml", status=404), "answers 404"),
    (change("update.xml", status=500), "answers 500"),
    (change("update.xml", headers={"Content-Encoding": "gzip"}), "switch compression off"),
    (change("update.xml", body=lambda b: b.replace(b"2.1.0", b"2.1.1")), "byte 1"),
    (change("update.xml", body=lambda b: b + b"\n"), "bytes; the file"),
    (change("firmware.bin", status=403), "answers 403"),
    (change("firmware.bin", body=lambda b: b[:-1] + b"?"), "byte 663 differs"),
    (change("firmware.bin", body=lambda b: b[:-1]), "announces 663 bytes"),
    (change("firmware.bin", headers={"Content-Length": None}), "Content-Length is never complete"),
    (change("update.xml", status=302, headers={"Location": "/update.xml"}), "more than 30 times"),
    (change("update.xml", status=302, headers={"Location": "ftp://x/"}), "no http:// or https://"),
])
def test_spoiled_answer_is_found(publisher, server, spoil, reason):
    server.spoil = spoil
    result = publish(publisher, server)
    assert result.returncode == 1
    assert reason in result.text, result.text


def test_answer_that_breaks_off(publisher, server):
    def spoil(path, status, headers, body):
        return (status, headers, body[:100]) if path.endswith(".bin") else (status, headers, body)
    server.spoil = spoil
    result = publish(publisher, server)
    assert result.returncode == 1 and "breaks off (564 bytes are missing)" in result.text


def test_redirect_is_followed(publisher, server):
    def spoil(path, status, headers, body):
        if path == "/old.xml":
            return 301, {"Location": "/update.xml", "Content-Length": "0"}, b""
        return status, headers, body
    server.spoil = spoil
    result = publisher.publish(url=server.url, verify=server.url + "/old.xml")
    assert result.returncode == 0, result.text


def test_long_head_is_warned_of(publisher, server):
    server.spoil = change("update.xml", headers={"X-Long": "x" * 1000})
    result = publish(publisher, server)
    assert result.returncode == 0 and "in two pieces" in result.text


def test_server_that_is_not_there(publisher, server):
    result = publisher.publish(verify="http://127.0.0.1:1/update.xml")
    assert result.returncode == 1 and "could not be asked" in result.text
    assert (publisher.out / "update.xml").exists()


@pytest.mark.parametrize("url, reason", [
    ("127.0.0.1/update.xml", "does not begin with http://HOST"),
    ("ftp://127.0.0.1/", "does not begin with http://HOST"),
    ("http://", "does not begin with http://HOST"),
    ("", "does not begin with http://HOST"),
    ("http://127.0.0.1:x/", "'x' is no port"),
    ("http://127.0.0.1/a b", "' ' needs escaping"),
    ("http://127.0.0.1/update.xml#x", "'#'"),
])
def test_url_that_is_none_is_refused(publisher, url, reason):
    before = publisher.files()
    result = publisher.run(*publisher.words(), f"--verify={url}")
    assert result.returncode == 2, result.text
    assert f"--verify '{url}': " in result.text and reason in result.text
    assert "Give the address of the manifest, such as http://update.example.com/update.xml" in result.text
    assert publisher.files() == before


@pytest.mark.parametrize("form", ["publish", "publish --dry-run", "rollback", "rollback --dry-run", "alone"])
@pytest.mark.parametrize("url", ["nonsense", ""])
def test_url_is_looked_at_before_anything_is_written(publisher, form, url):
    for build in ("174200000", "174200001"):
        assert publisher.publish(build=build).returncode == 0
    before = publisher.files()
    words = {"publish": publisher.words(build="174200002"), "rollback": ["rollback", "--out", publisher.out],
             "alone": ["--out", publisher.out]}[form.split()[0]]
    result = publisher.run(*words, *form.split()[1:], f"--verify={url}")
    assert result.returncode == 2 and f"--verify '{url}'" in result.text, result.text
    assert result.stdout == b""
    assert publisher.files() == before


def test_dry_run_says_that_the_server_was_not_asked(publisher, server):
    result = publish(publisher, server, dry_run=True)
    assert result.returncode == 0 and server.requests == []
    assert f"{server.url}/update.xml was not asked" in result.text


def test_model_is_asked_for_alike_with_and_without_an_image(publisher, server):
    publisher.image.write_bytes(uimage(b"kernel", name=b"Model x"))
    assert publish(publisher, server, model="Model X").returncode == 0
    result = publisher.run("--verify", server.url + "/update.xml", "--out", publisher.out, "--model", "Model X")
    assert result.returncode == 0, result.text
    asked = [path for path, _ in server.requests if path.startswith("/update.xml")]
    assert len(asked) == 2 and asked[0] == asked[1] and "&model=MODEL-X&" in asked[0]


@pytest.mark.parametrize("model", ["", "Mod\u00e8le", "a\nb"])
def test_model_that_cannot_be_asked_for_is_refused(publisher, server, model):
    assert publish(publisher, server).returncode == 0
    server.requests.clear()
    result = publisher.run("--verify", server.url + "/update.xml", "--out", publisher.out, f"--model={model}")
    assert result.returncode == 2 and "--model '" in result.text and "Give the model" in result.text, result.text
    assert server.requests == []


def test_folder_without_a_manifest(publisher, server):
    result = publisher.run("--verify", server.url + "/update.xml", "--out", publisher.folder)
    assert result.returncode == 1 and "has no manifest" in result.text


MANIFEST_TAKEN = "is as in the folder"


@pytest.mark.parametrize("pieces", [
    [lambda xml: OK + b"Content-Length: %d\r\n\r\n" % len(xml) + xml],
    [lambda xml: OK + b"Content-Length: %d\r\n\r\n" % len(xml), b"XML"],
    [lambda xml: OK + b"Transfer-Encoding: chunked\r\n\r\n%x\r\n" % len(xml) + xml + b"\r\n0\r\n\r\n"],
    [OK + b"Content-Encoding: identity\r\n\r\nXML"],
    [OK + b"\r\nXML"],
    [b"HTTP/1.1 100 Continue\r\n\r\n" + OK + b"\r\nXML"],
], ids=["whole", "head before", "one chunk", "identity", "until the end", "after a 100"])
def test_manifest_that_a_router_takes_is_taken(publisher, pieces):
    assert MANIFEST_TAKEN in raw_verify(publisher, *pieces).text


@pytest.mark.parametrize("pieces, reason", [
    ([lambda xml: OK + b"Content-Length: %d\r\n\r\n" % len(xml) + xml[:50], lambda xml: xml[50:]], "in 2 pieces"),
    ([lambda xml: OK + b"Transfer-Encoding: chunked\r\n\r\n5\r\n" + xml[:5] + b"\r\n%x\r\n" % (len(xml) - 5) + xml[5:]
      + b"\r\n0\r\n\r\n"], "in 2 pieces"),
    ([OK + b"Transfer-Encoding: chunked\r\n\r\n-5\r\nXML"], "breaks off"),
    ([b"nonsense\r\n\r\nXML"], "no HTTP/1.1"),
    ([b"HTTP/1.1 200 OK\r\nX: y\r\n"], "breaks off"),
    ([b"HTTP/1.1 500 \x1b[31mred\xe2\x80\xae\r\n\r\n"], "500 \\x1b[31mred"),
], ids=["two pieces", "two chunks", "no chunk", "no HTTP", "half a head", "escapes"])
def test_manifest_that_a_router_does_not_take_is_found(publisher, pieces, reason):
    result = raw_verify(publisher, *pieces)
    assert result.returncode == 1 and reason in result.text, result.text
    assert "\x1b" not in result.text


def test_ten_seconds_are_for_all_of_it(publisher, monkeypatch):
    """A server that sends a byte now and then does not get more; a router gives it no more."""
    monkeypatch.setattr(verifying, "MANIFEST_TIME", 0.3)
    done = threading.Event()
    with RawServer(*[b"H"] * 3, wait=done) as url:
        begun = time.monotonic()
        with pytest.raises(verifying.Mismatch, match="could not be asked|breaks off"):
            verifying.verify_manifest(url, "", publisher.image, print)
        assert time.monotonic() - begun < 10


def test_candidate_is_verified_at_the_routers_own_address(publisher, server):
    """The server chooses by board name and serial number; so the question has to name them."""
    def spoil(path, status, headers, body):
        chosen = "sn=CAND1&" in server.requests[-1][0] and "model=QOR,MODEL-X&" in server.requests[-1][0]
        if path == "/update.xml" and not chosen:
            body = body.replace(b"174200000<", b"171000000<")
        return status, headers, body

    server.spoil = spoil
    assert publisher.publish(url=server.url).returncode == 0
    words = ("verify", server.url + "/update.xml", "--out", publisher.out)
    result = publisher.run(*words)
    assert result.returncode == 1 and "offers build 171000000" in result.text and "--board and --serial" in result.text
    result = publisher.run(*words, "--board", "qor,model-x", "--serial", "CAND1")
    assert result.returncode == 0, result.text


@pytest.mark.parametrize("option", ["--serial", "--board"])
@pytest.mark.parametrize("value", ["", "a b", "\u00fc"])
def test_fact_that_no_router_sends_is_refused(publisher, option, value):
    assert publisher.publish().returncode == 0
    result = publisher.run("verify", "http://127.0.0.1:1/update.xml", "--out", publisher.out, f"{option}={value}")
    assert result.returncode == 2 and "no router sends that" in result.text
