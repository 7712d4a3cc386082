# SPDX-License-Identifier: ISC
"""The simulated router with its web gateway, for the browser tests: switched on and off, and a
shell on it meanwhile."""
import http.client
import json
import os
import pathlib
import socket
import subprocess
import sys
import threading

PROJECT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("FWUPDATE_BUILD", PROJECT / "build/release"))
WAIT = int(os.environ.get("FWUPDATE_TEST_WAIT_MS", "10000")) / 1000

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
        self.process = None

    def power_on(self, runs=OLD):
        gateway = os.environ.get("FWUPDATE_GATEWAY")
        command = [PROJECT / "testbed/router", "--build", BUILD, "--quiet", "--server-root", self.served,
                   "--web", self.shared, *self.options]
        if gateway:
            command += ["--gateway", gateway, "--bind", os.path.dirname(gateway)]
        self.process = subprocess.Popen([*command, "--", "sh"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True, errors="surrogateescape")
        self.run(f"sed -i 's/r1234/{runs['revision']}/; s/171000000/{runs['build']}/' /etc/router/board.json")

    def power_off(self):
        """The gateway's socket goes as well: to the browser the router is away."""
        if self.process is None:
            return
        self.process.stdin.close()
        self.process.stdout.read()
        status = self.process.wait(WAIT)
        self.process = None
        (self.shared / "http").unlink(missing_ok=True)
        assert status == 0, f"the router ended with status {status}"

    def close(self):
        try:
            self.power_off()
        finally:
            self.relay.shutdown()
            self.relay.server_close()

    def run(self, command):
        """Runs it on the router; returns its output. A failure fails the test."""
        self.process.stdin.write(f"{{ {command}\n}} </dev/null 2>&1; printf '\\n\\001%d\\n' $?\n")
        self.process.stdin.flush()
        lines = []
        bound = threading.Timer(3 * WAIT, self.process.kill)
        bound.start()
        for line in self.process.stdout:
            if line.startswith("\x01"):
                bound.cancel()
                output = "".join(lines)[:-1]
                assert line == "\x010\n", f"{command}: status {line[1:].strip()}: {output}"
                return output
            lines.append(line)
        bound.cancel()
        raise AssertionError(f"{command}: the router ended, or this took more than {3 * WAIT:g} s")

    def wait_for(self, condition):
        """Waits until the shell's condition holds on the router."""
        tries = int(WAIT * 20)
        self.run(f"n=0; until {condition}; do n=$((n + 1)); [ $n -lt {tries} ] || break; sleep 0.05; done; [ $n -lt {tries} ]")

    def call(self, sid, name, method, args, path=None):
        """A call through the gateway; returns its answer."""
        request = {"jsonrpc": "2.0", "id": 1, "method": "call", "params": [sid, name, method, args]}
        return json.loads(self.post(json.dumps(request).encode(), path).read())

    def post(self, body, path=None):
        return self.request("POST", "/ubus", body, gateway=path)

    def request(self, verb, path, body=None, headers=None, gateway=None):
        connection = Connection(gateway or self.shared / "http")
        connection.request(verb, path, body, headers or {})
        return connection.getresponse()

    def end_session(self, sid, path=None):
        assert self.call(sid, "session", "destroy", {}, path)["result"] == [0]

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

    def offer_slowly(self, size_known=True, **manifest):
        """Half of the firmware comes at once, the rest after release()."""
        (self.shared / "released").unlink(missing_ok=True)
        script = PROJECT / "tests/web/slow_server.py"
        known = "known" if size_known else "unknown"
        self.run(f"setsid python3 -B {script} /srv/update/firmware.bin {self.shared} {known} "
                 f">{self.shared}/slow.log 2>&1 & ")
        self.wait_for(f"[ -s {self.shared}/port ]")
        port = (self.shared / "port").read_text().strip()
        self.offer(url=f"http://192.0.2.1:{port}/firmware.bin", **manifest)

    def release(self):
        (self.shared / "released").touch()

    def lose_the_daemon(self):
        self.run('p=$(pidof fwupdate) && [ "$p" ] && kill -9 $p')
        self.wait_for("! ubus list fwupdate >/dev/null 2>&1")

    def bring_the_daemon_back(self):
        self.run("setsid /usr/sbin/fwupdate >/dev/null 2>&1 & ubus -t 10 wait_for fwupdate")

    def make_image(self, model="MODEL-X", size=2048 * 1024):
        payload = self.shared / "payload"
        payload.write_bytes(os.urandom(size))
        subprocess.run(["mkimage", "-A", "arm", "-O", "linux", "-T", "kernel", "-C", "none", "-a", "0x80008000",
                        "-e", "0x80008040", "-n", model, "-d", payload, self.served / "firmware.bin"],
                       check=True, stdout=subprocess.DEVNULL)

    def await_installer(self):
        self.wait_for("[ -e /var/log/sysupgrade ]")
