# SPDX-License-Identifier: ISC
"""Runs on the simulated router, as the far end of its cable. Sends a quarter of FILE; up to the half
when FOLDER/half is there; the rest when FOLDER/all is there. So a test can look at a download for as
long as it wants. Usage: held_server.py FILE FOLDER known|unknown (the size); makes FOLDER/held when
it listens."""
import http.server
import pathlib
import sys
import time

file, folder = map(pathlib.Path, sys.argv[1:3])
size = sys.argv[3]
ADDRESS = ("192.0.2.1", 8080)  # the router's network is its own: the port is free


def await_one_of(*names):
    while not any((folder / name).exists() for name in names):
        time.sleep(0.02)


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        content = file.read_bytes()
        quarter = len(content) // 4
        self.send_response(200)
        if size == "known":
            self.send_header("Content-Length", str(len(content)))
        self.end_headers()
        self.wfile.write(content[:quarter])
        await_one_of("half", "all")
        self.wfile.write(content[quarter:2 * quarter])
        await_one_of("all")
        self.wfile.write(content[2 * quarter:])


server = http.server.ThreadingHTTPServer(ADDRESS, Handler)
(folder / "held").touch()
server.serve_forever()
