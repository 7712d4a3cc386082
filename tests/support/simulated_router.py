# SPDX-License-Identifier: ISC
"""The simulated router for tests in Python:

    with Router(server_root=folder) as router:
        result = router.run("fwupdate-cli check")
        assert result.status == 10

        terminal = router.open("fwupdate-cli update", columns=80)
        terminal.expect("[y/N]")
        terminal.type("y\\n")
        assert terminal.wait() == 0

Everything runs in the sandbox, as root of the router.
"""
import dataclasses
import json
import os
import pathlib
import re
import select
import shlex
import subprocess
import tempfile
import time

from router_agent import Agent

PROJECT = pathlib.Path(__file__).resolve().parents[2]
SUPPORT = PROJECT / "tests/support"
BUILD = pathlib.Path(os.environ.get("FWUPDATE_BUILD", PROJECT / "build/release")).resolve()
# Bound of one wait, seconds; a busy machine may need much of it.
WAIT = max(60, int(os.environ.get("FWUPDATE_TEST_WAIT_MS", "10000")) / 1000)
# What a download is held from that begins here; see Router.hold_downloads.
HELD_URL = "http://update.example.com:8080/firmware.bin"

Agent.register("Program")


@dataclasses.dataclass
class Result:
    status: int
    raw: bytes

    @property
    def output(self):
        """What was printed, with a terminal's line ends made plain."""
        return self.raw.decode(errors="replace").replace("\r\n", "\n")

    def json(self):
        return json.loads(self.output)


class Program:
    """A command that runs on the router; see router_agent.Program."""

    def __init__(self, remote):
        self._remote = remote

    def expect(self, text, seconds=WAIT):
        return self._remote.expect(text.encode(), seconds).decode(errors="replace")

    def type(self, text):
        self._remote.write(text.encode())

    def interrupt(self):
        self.type("\x03")

    def signal(self, number):
        self._remote.signal(int(number))

    def resize(self, columns):
        self._remote.resize(columns)

    def hang_up(self):
        self._remote.hang_up()

    def wait(self, seconds=WAIT):
        return self._remote.wait(seconds)

    def output(self):
        return Result(0, self._remote.output()).output

    def result(self, seconds=WAIT):
        return Result(self.wait(seconds), self._remote.output())


class Router:
    """A router of its own, gone at the end of the `with`; it ends with the thread that began
    it, too. `options` are testbed/router's. `folder` is writable, with the same path on both
    sides; without one it gets its own."""

    def __init__(self, *options, server_root=None, folder=None):
        self.server_root, self.folder = server_root, folder
        self._options = options

    def __enter__(self):
        self._home = tempfile.TemporaryDirectory(prefix="router-")
        self.folder = self.folder or pathlib.Path(self._home.name)
        served = ["--server-root", self.server_root] if self.server_root else []
        # Its standard input has the commands, its output what they print.
        self._process = subprocess.Popen(
            [PROJECT / "testbed/router", "--build", BUILD, *served, "--bind", self.folder,
             "--bind", self._home.name, *self._options, "--", "sh"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self._agent = None
        self._mark = b"--" + os.urandom(8).hex().encode()
        self.must("true")
        return self

    def __exit__(self, kind, *_):
        self._process.stdin.close()
        status = self._process.wait(WAIT)
        self._process.stdout.close()
        self._home.cleanup()
        # testbed/router says what became of the daemon.
        assert kind or status == 0, f"the router ended with status {status}"

    def run(self, command, columns=None, environment=None, seconds=WAIT):
        """Runs a shell command to its end, on a terminal when `columns` says how wide."""
        if columns or environment:
            return self.open(command, columns, environment).result(seconds)
        self._process.stdin.write(b"sh -c %s </dev/null 2>&1; printf '\\n%s %%d\\n' $?\n"
                                  % (shlex.quote(command).encode(), self._mark))
        self._process.stdin.flush()
        output, end = b"", time.monotonic() + seconds
        while not (last := re.search(rb"\n%s (\d+)\n\Z" % self._mark, output)):
            output += self._read(command, output, end)
        return Result(int(last.group(1)), output[:last.start()])

    def _read(self, command, output, end):
        if not select.select([self._process.stdout], [], [], max(0, end - time.monotonic()))[0]:
            self._process.kill()
            raise AssertionError(f"no end of {command!r}; so far {output!r}")
        piece = os.read(self._process.stdout.fileno(), 65536)
        assert piece, f"the router ended during {command!r}: {output!r}"
        return piece

    def must(self, command, seconds=WAIT):
        """The output of a command that has to succeed, without the last line's end."""
        result = self.run(command, seconds=seconds)
        assert result.status == 0, f"{command}: status {result.status}: {result.output}"
        return result.output.rstrip("\n")

    def open(self, command, columns=None, environment=None, input=""):
        """Starts a shell command and goes on. It has a terminal when `columns` says how wide."""
        if not self._agent:
            self._start_agent()
        return Program(self._agent.Program(["sh", "-c", command], columns, environment,
                                           input.encode()))

    def _start_agent(self):
        socket = self._home.name + "/agent"
        self.must(f"/host/usr/bin/python3 -B {SUPPORT}/router_agent.py {socket} >/dev/null &")
        agent = Agent(address=socket, authkey=b"router")

        def is_there():
            try:
                agent.connect()
            except (FileNotFoundError, ConnectionRefusedError):
                return False
            return True
        wait_until(is_there, "router_agent.py does not start")
        self._agent = agent

    def call(self, method, **arguments):
        """The daemon's answer as a dictionary."""
        message = shlex.quote(json.dumps(arguments))
        return json.loads(self.must(f"ubus -t 120 -S call fwupdate {method} {message}", 2 * WAIT))

    def wait_for(self, command, seconds=WAIT):
        """Repeats a command until it succeeds; its output."""
        last = None

        def succeeds():
            nonlocal last
            last = self.run(command)
            return last.status == 0
        wait_until(succeeds, lambda: f"'{command}' does not succeed: {last.output}", seconds)
        return last.output

    # --- A daemon that stands still

    def stop_daemon(self):
        """Until continue_daemon(); its worker goes on. Only the oldest of its name is the daemon: a
        command that it is about to run has its name too, and stopped there, would have another one
        when continue_daemon() looks for it."""
        self._stopped = self.must("pidof fwupdate | tr ' ' '\\n' | sort -n | head -n 1")
        self.must(f"kill -STOP {self._stopped}")

    def continue_daemon(self):
        self.must(f"kill -CONT {self._stopped}")

    # --- Downloads that last as long as the test wants

    def hold_downloads(self, size="known"):
        """A download of HELD_URL stops at a quarter, after send_half() at the half, until
        release(). What is sent is /srv/update/firmware.bin. The size may be "unknown"."""
        (self.folder / "held").unlink(missing_ok=True)
        self.hold_again()
        self.must(f"busybox setsid /host/usr/bin/python3 -B {SUPPORT}/held_server.py /srv/update/firmware.bin "
                  f"{self.folder} {size} >/var/log/held-server 2>&1 &")
        wait_until((self.folder / "held").exists, lambda: self.must("cat /var/log/held-server"))

    def hold_again(self):
        """The next download as well."""
        for name in ("half", "all"):
            (self.folder / name).unlink(missing_ok=True)

    def send_half(self):
        (self.folder / "half").touch()

    def release(self):
        (self.folder / "all").touch()


def wait_until(condition, complaint, seconds=WAIT, pause=0.02):
    """Asks until it is true, and returns that; the complaint may be a function. What takes long is
    asked for less often: to ask is often to start a process."""
    deadline = time.monotonic() + seconds
    while not (value := condition()):
        assert time.monotonic() < deadline, complaint() if callable(complaint) else complaint
        time.sleep(pause)
        pause = max(pause, min(1.5 * pause, 0.3))
    return value


def make_image(path, size, model="MODEL-X"):
    """A U-Boot image whose data checksum counts."""
    payload = path.with_suffix(".payload")
    payload.write_bytes(os.urandom(size))
    subprocess.run(["mkimage", "-A", "arm", "-O", "linux", "-T", "kernel", "-C", "none", "-a",
                    "0x80008000", "-e", "0x80008040", "-n", model, "-d", payload, path],
                   check=True, stdout=subprocess.DEVNULL)
    payload.unlink()


def make_server(folder, size=100_000, version="2.1.0", build="174117600",
                notes="Faster start, fewer surprises.", model="MODEL-X", more="",
                url="http://update.example.com/firmware.bin"):
    """Fills a folder that an update server may serve."""
    make_image(folder / "firmware.bin", size, model)
    (folder / "update.xml").write_text(f"""<?xml version="1.0" encoding="utf-8"?>
<update>
<buildtime>{build}</buildtime>
<url>{url}</url>
<version>{version}</version>
<release_notes>{notes}</release_notes>{more}
</update>
""")
    return folder
