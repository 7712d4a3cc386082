#!/usr/bin/python3
# SPDX-License-Identifier: ISC
"""Makes the simulated router's web gateway reachable: TCP on loopback <-> the unix socket that
`testbed/router --web FOLDER` serves. While nobody serves the socket, connections are refused to
the browser by closing them: the router is away.

Usage: testbed/web/relay.py FOLDER [PORT]     prints the address, then relays until it is ended
"""
import contextlib
import http.server
import json
import socket
import sys
import threading


class Relay(http.server.ThreadingHTTPServer):
    """Each connection of the browser is one to the router, open for as long as both want it.
    `fault(object, method)` of a JSON-RPC call may answer in place of the router: it gets the
    browser's socket and returns True when it has dealt with it. Then the connection ends."""

    def __init__(self, folder, port=0):
        super().__init__(("127.0.0.1", port), Handler)
        self.path = f"{folder}/http"
        self.fault = lambda name, method, browser: False
        self.replaced = lambda method: None  # or bytes: the router does the call, the browser gets these
        self.missed = 0  # requests that found no router

    @property
    def address(self):
        return f"http://127.0.0.1:{self.server_address[1]}/fwupdate/"

    def handle_error(self, request, client_address):
        if not isinstance(sys.exc_info()[1], OSError):  # either side may leave at any time
            super().handle_error(request, client_address)


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    router = replaced = None

    def log_message(self, *_):
        pass

    def handle_one(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        name, method = called(body)
        if self.server.fault(name, method, self.connection) or not self.find_router():
            self.close_connection = True
            return
        self.replaced = self.server.replaced(method)
        if self.replaced is not None:
            del self.headers["Connection"]
            self.headers["Connection"] = "close"
        head = f"{self.command} {self.path} HTTP/1.1\r\n{self.headers}"
        self.router.sendall(head.replace("\r\n", "\n").replace("\n", "\r\n").encode("latin-1") + body)

    do_GET = do_HEAD = do_POST = handle_one

    def find_router(self):
        if self.router is None:
            router = socket.socket(socket.AF_UNIX)
            try:
                router.connect(self.server.path)
            except OSError:
                self.server.missed += 1
                router.close()
                return False  # nobody is there; the browser sees a closed connection
            self.router = router
            threading.Thread(target=self.copy_answers, daemon=True).start()
        return True

    def copy_answers(self):
        """Until the router ends the connection; then it ends for the browser as well."""
        with contextlib.suppress(OSError):
            while piece := self.router.recv(65536):
                if self.replaced is None:
                    self.connection.sendall(piece)
            self.connection.sendall(self.replaced or b"")
        with contextlib.suppress(OSError):
            self.connection.shutdown(socket.SHUT_RDWR)

    def finish(self):
        if self.router is not None:
            with contextlib.suppress(OSError):
                self.router.shutdown(socket.SHUT_RDWR)
            self.router.close()
        super().finish()


def called(body):
    """Object and method of a JSON-RPC call."""
    try:
        _, name, method, *_ = json.loads(body)["params"]
        return name, method
    except (ValueError, KeyError, TypeError):
        return "", ""


def main():
    if len(sys.argv) not in (2, 3) or not all(word.isdigit() for word in sys.argv[2:]):
        print(__doc__.strip().splitlines()[-1], file=sys.stderr)
        return 2
    with Relay(sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 0) as relay:
        print(relay.address, flush=True)
        relay.serve_forever()


if __name__ == "__main__":
    sys.exit(main())
