# SPDX-License-Identifier: ISC
"""--verify: asks as a router does, and finds whatever a server may do to the files."""
import http.server
import pathlib
import threading

import pytest
from make_images import uimage


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
    (change("update.xml", headers={"Content-Length": None}), "does not announce the size"),
    (change("update.xml", body=lambda b: b.replace(b"2.1.0", b"2.1.1")), "byte 1"),
    (change("update.xml", body=lambda b: b + b"\n"), "announces"),
    (change("firmware.bin", status=403), "answers 403"),
    (change("firmware.bin", body=lambda b: b[:-1] + b"?"), "byte 663 differs"),
    (change("firmware.bin", body=lambda b: b[:-1]), "announces 663 bytes"),
    (change("firmware.bin", headers={"Content-Length": None}), "Content-Length is never complete"),
    (change("update.xml", status=302, headers={"Location": "/update.xml"}), "answers 302"),
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
    assert result.returncode == 1 and "differs" in result.text


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
    ("http://127.0.0.1:x/", "Port could not be cast"),
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
