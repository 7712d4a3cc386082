# SPDX-License-Identifier: ISC
"""Runs on the simulated router, as the far end of its cable. Sends half of a file, and the rest when
FOLDER/released is there. Usage: slow_server.py FILE FOLDER known|unknown (the size); writes FOLDER/port."""
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
        self.wfile.write(content[:half])
        while not os.path.exists(f"{folder}/released"):
            time.sleep(0.05)
            # A byte now and then: the daemon reports progress only when something comes.
            if half < len(content) - 1000:
                self.wfile.write(content[half:half + 1])
                half += 1
        self.wfile.write(content[half:])


server = http.server.ThreadingHTTPServer(("192.0.2.1", 0), Handler)
with open(f"{folder}/port.new", "w", encoding="ascii") as port:
    print(server.server_address[1], file=port)
os.rename(f"{folder}/port.new", f"{folder}/port")
server.serve_forever()
