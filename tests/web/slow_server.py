# SPDX-License-Identifier: ISC
"""Runs on the simulated router, as the far end of its cable. Sends half of a file, and the rest when
FOLDER/released is there, so that a test can look at a download for as long as it wants. Usage: slow_server.py FILE FOLDER known|unknown (the size); writes FOLDER/port."""
import http.server
import os
import sys
import time

path, folder, size = sys.argv[1:]


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        with open(path, "rb") as file:
            content = file.read()
        self.send_response(200)
        if size == "known":
            self.send_header("Content-Length", str(len(content)))
        self.end_headers()
        half = len(content) // 2
        # In pieces over two seconds: the daemon counts once a second.
        for start in range(0, half, half // 20):
            self.wfile.write(content[start:min(start + half // 20, half)])
            time.sleep(0.1)
        while not os.path.exists(f"{folder}/released"):
            time.sleep(0.05)
        self.wfile.write(content[half:])


server = http.server.ThreadingHTTPServer(("192.0.2.1", 0), Handler)
with open(f"{folder}/port.new", "w", encoding="ascii") as port:
    print(server.server_address[1], file=port)
os.rename(f"{folder}/port.new", f"{folder}/port")
server.serve_forever()
