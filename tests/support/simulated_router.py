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
import subprocess
import tempfile
import time

from router_agent import Agent

PROJECT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("FWUPDATE_BUILD", PROJECT / "build/release")).resolve()
WAIT = int(os.environ.get("FWUPDATE_TEST_WAIT_MS", "10000")) / 1000 * 3

Agent.register("Program")


@dataclasses.dataclass
class Result:
    status: int
    output: str

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

    def raw(self):
        return self._remote.output()

    def output(self):
        """What was printed, with the terminal's line ends made plain."""
        return self.raw().decode(errors="replace").replace("\r\n", "\n")

    def result(self, seconds=WAIT):
        status = self.wait(seconds)
        return Result(status, self.output())


class Router:
    """A router of its own, gone at the end of the `with`. `options` are testbed/router's.
    `folder` is a writable one, shared under the same path."""

    def __init__(self, *options, server_root=None, build=None):
        self._options = [*options, "--build", str(build or BUILD)]
        if server_root:
            self._options += ["--server-root", str(server_root)]

    def __enter__(self):
        self._home = tempfile.TemporaryDirectory(prefix="router-")
        self.folder = pathlib.Path(self._home.name)
        socket = str(self.folder / "agent")
        self._process = subprocess.Popen(
            [PROJECT / "testbed/router", *self._options, "--bind", self.folder, "--",
             "/host/usr/bin/python3", "-B", PROJECT / "tests/support/router_agent.py", socket],
            stdin=subprocess.PIPE)
        self._agent = Agent(address=socket, authkey=b"router")
        wait_until(self._is_there, "the router did not start")
        return self

    def _is_there(self):
        assert self._process.poll() is None, "the router ended at once"
        try:
            self._agent.connect()
        except (FileNotFoundError, ConnectionRefusedError):
            return False
        return True

    def __exit__(self, kind, *_):
        self._process.stdin.close()
        status = self._process.wait(WAIT)
        self._home.cleanup()
        # testbed/router says what became of the daemon.
        assert kind or status == 0, f"the router ended with status {status}"

    def open(self, command, columns=None, environment=None, input=""):
        """Starts a shell command, on a terminal when `columns` says how wide."""
        return Program(self._agent.Program(["sh", "-c", command], columns, environment,
                                           input.encode()))

    def run(self, command, columns=None, environment=None, input="", seconds=WAIT):
        """Runs it to its end."""
        return self.open(command, columns, environment, input).result(seconds)

    def run_raw(self, command, columns=None, environment=None):
        """The same, and every byte of the output instead of the result."""
        program = self.open(command, columns, environment)
        program.wait()
        return program.raw()

    def wait_for(self, command, seconds=WAIT):
        """Repeats a command until it succeeds."""
        last = None

        def succeeds():
            nonlocal last
            last = self.run(command)
            return last.status == 0
        wait_until(succeeds, f"'{command}' does not succeed", seconds, pause=0.1)
        return last.output


def wait_until(condition, complaint, seconds=WAIT, pause=0.01):
    deadline = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < deadline, complaint
        time.sleep(pause)


def make_image(path, size, model="MODEL-X"):
    """A U-Boot image whose data checksum counts."""
    payload = path.with_suffix(".payload")
    payload.write_bytes(os.urandom(size))
    subprocess.run(["mkimage", "-A", "arm", "-O", "linux", "-T", "kernel", "-C", "none", "-a",
                    "0x80008000", "-e", "0x80008040", "-n", model, "-d", payload, path],
                   check=True, stdout=subprocess.DEVNULL)
    payload.unlink()


def make_server(folder, size=100_000, version="2.1.0", build="174117600",
                notes="Faster start, fewer surprises.", model="MODEL-X", more=""):
    """Fills a folder that an update server may serve."""
    make_image(folder / "firmware.bin", size, model)
    (folder / "update.xml").write_text(f"""<?xml version="1.0" encoding="utf-8"?>
<update>
<buildtime>{build}</buildtime>
<url>http://update.example.com/firmware.bin</url>
<version>{version}</version>
<release_notes>{notes}</release_notes>{more}
</update>
""")
    return folder
