# SPDX-License-Identifier: ISC
"""A simulated router that stays open: one sandbox, one daemon, many questions."""
import json
import os
import pathlib
import select
import subprocess
import time

project = pathlib.Path(__file__).resolve().parent.parent.parent
build = os.environ.get("FWUPDATE_BUILD", str(project / "build/release"))
wait_seconds = max(60, int(os.environ.get("FWUPDATE_TEST_WAIT_MS", "10000")) / 1000)

# Runs each line it reads and ends its output with a mark and the status.
LOOP = r"""while read -r line; do eval "$line" 2>&1; printf '\n\001%d\n' $?; done"""


class RouterSession:
    """Open it in a thread that lives as long as the router should: the sandbox ends with
    the thread that started it."""

    def __init__(self, folder, *options, shared=None):
        self.served = folder / "served"
        self.shared = shared or folder / "shared"
        self.served.mkdir(exist_ok=True)
        self.shared.mkdir(exist_ok=True)
        self.process = subprocess.Popen(
            [project / "testbed/router", "--build", build, "--server-root", self.served,
             "--bind", self.shared, *options, "--", "sh", "-c", LOOP],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        assert self.process.wait(timeout=wait_seconds) == 0, "the router ended with a failure"
        self.process.stdout.close()

    def run(self, command):
        """Status and output of one line of shell."""
        assert "\n" not in command
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()
        output = b""
        end = time.monotonic() + wait_seconds
        while b"\n\x01" not in output or not output.endswith(b"\n"):
            ready, _, _ = select.select([self.process.stdout], [], [], max(0, end - time.monotonic()))
            assert ready, f"no answer to {command!r}; so far {output!r}"
            piece = os.read(self.process.stdout.fileno(), 65536)
            assert piece, f"the router ended during {command!r}: {output!r}"
            output += piece
        text, _, status = output.rpartition(b"\n\x01")
        return int(status), text.decode()

    def call(self, method, **arguments):
        """The answer of the object `fwupdate` as a dictionary."""
        message = json.dumps(arguments).replace("'", "'\\''")
        status, text = self.run(f"ubus -t 120 -S call fwupdate {method} '{message}'")
        assert status == 0, text
        return json.loads(text)

    def await_file(self, path):
        status, text = self.run(f"n=0; until [ -e {path} ] || [ $n -gt 300 ]; do sleep 0.1; n=$((n+1)); done; cat {path}")
        assert status == 0, text
        return text
