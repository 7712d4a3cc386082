# SPDX-License-Identifier: ISC
"""The simulated router with its web gateway, for the browser tests: switched on and off."""
import http.client
import json
import os
import socket
import sys
import threading

import simulated_router
from simulated_router import PROJECT, WAIT, make_image

sys.path.insert(0, str(PROJECT / "testbed/web"))
from relay import Relay  # noqa: E402

OLD = {"revision": "r1234", "build": "171000000"}  # what testbed/rootfs says
NEW = {"revision": "r1300", "build": "174200000"}
NOTES = "Faster start, fewer surprises."


class Connection(http.client.HTTPConnection):
    """To the gateway's own socket, without a relay."""

    def __init__(self, path):
        super().__init__("router", timeout=WAIT)
        self.path = str(path)

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(self.timeout)
        self.sock.connect(self.path)


class Router:
    """Folders: `served` is what the update server serves, `shared` is writable on both sides."""

    def __init__(self, folder, *options):
        self.served, self.shared = folder / "served", folder / "shared"
        self.served.mkdir()
        self.shared.mkdir()
        self.options = options
        self.relay = Relay(self.shared)
        threading.Thread(target=self.relay.serve_forever, daemon=True).start()
        self.machine = None

    def power_on(self, runs=OLD):
        gateway = os.environ.get("FWUPDATE_GATEWAY")
        options = ["--quiet", "--web", self.shared, *self.options]
        if gateway:
            options += ["--gateway", gateway, "--bind", os.path.dirname(gateway)]
        self.machine = simulated_router.Router(*options, server_root=self.served, folder=self.shared)
        self.machine.__enter__()
        self.run(f"sed -i 's/r1234/{runs['revision']}/; s/171000000/{runs['build']}/' /etc/router/board.json")

    def power_off(self):
        """The gateway's socket goes as well: to the browser the router is away."""
        if self.machine is None:
            return
        machine, self.machine = self.machine, None
        machine.__exit__(None)
        (self.shared / "http").unlink(missing_ok=True)

    def close(self):
        try:
            self.power_off()
        finally:
            self.relay.shutdown()
            self.relay.server_close()

    def run(self, command):
        """Runs it on the router; returns its output. A failure fails the test."""
        return self.machine.must(command)

    def wait_for(self, condition):
        """Waits until the shell's condition holds on the router."""
        self.machine.wait_for(condition)

    def call(self, sid, name, method, args):
        """A call through the gateway; returns its answer."""
        request = {"jsonrpc": "2.0", "id": 1, "method": "call", "params": [sid, name, method, args]}
        return json.loads(self.post(json.dumps(request).encode()).read())

    def post(self, body):
        return self.request("POST", "/ubus", body)

    def request(self, verb, path, body=None, headers=None):
        connection = Connection(self.shared / "http")
        connection.request(verb, path, body, headers or {})
        return connection.getresponse()

    def end_session(self, sid):
        assert self.call(sid, "session", "destroy", {})["result"] == [0]

    # --- The update server

    def offer(self, build=NEW["build"], version=NEW["revision"], notes=NOTES, url="http://192.0.2.1/firmware.bin", more=""):
        """The manifest; `notes` may be bytes."""
        if isinstance(notes, str):
            notes = notes.encode()
        text = f"<?xml version='1.0'?><update><buildtime>{build}</buildtime><url>{url}</url>" \
               f"<version>{version}</version>{more}<release_notes>".encode()
        new = self.served / "update.xml.new"
        new.write_bytes(text + notes + b"</release_notes></update>")
        new.rename(self.served / "update.xml")

    def offer_slowly(self, size="known", **manifest):
        """A quarter of the firmware comes at once, up to the half after send_half(), the rest after
        release()."""
        self.machine.hold_downloads(size)
        self.offer(url=simulated_router.HELD_URL, **manifest)

    def send_half(self):
        self.machine.send_half()

    def release(self):
        self.machine.release()

    def verify_slowly(self):
        """What is offered is bad, and found so only when the function that is returned is called."""
        checked = self.shared / "checked"
        # What is no U-Boot image is left to fwtool: it takes its time.
        (self.served / "firmware.bin").write_bytes(b"no U-Boot image" * 100)
        self.run(f"printf '#!/bin/sh\\nuntil [ -e {checked} ]; do sleep 0.05; done; exit 1' "
                 ">/usr/bin/fwtool; chmod 755 /usr/bin/fwtool")
        return checked.touch

    def lose_the_daemon(self):
        """The daemon's worker, or a command that it is about to run, has its name too and may just
        have ended. A process that lives and cannot be ended fails the test."""
        self.run("""pids=$(pidof fwupdate) || exit 1
            for pid in $pids; do
                [ "$pid" -gt 1 ] && { kill -9 "$pid" 2>/dev/null || [ ! -e "/realproc/$pid" ]; } || exit 1
            done""")
        self.wait_for("! ubus list fwupdate >/dev/null 2>&1")

    def bring_the_daemon_back(self):
        self.run("busybox setsid /usr/sbin/fwupdate >/dev/null 2>&1 & ubus -t 60 wait_for fwupdate")

    def make_image(self, model="MODEL-X", size=2048 * 1024):
        make_image(self.served / "firmware.bin", size, model)

    def await_installer(self):
        self.wait_for("[ -e /var/log/sysupgrade ]")
