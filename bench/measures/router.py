# SPDX-License-Identifier: ISC
"""Processes and files of the simulated router, seen from inside of it."""
import contextlib
import json
import os
import pathlib
import subprocess
import time

BUILD = pathlib.Path(os.environ["BENCH_BUILD"])
TOOLS = BUILD / "bench"
ROUTER_CURL = BUILD.parent / "router-curl"  # what bench/router-curl makes
DAEMON = "/usr/sbin/fwupdate"
SERVER_ROOT = pathlib.Path("/srv/update")
LONGEST = 120  # seconds that anything here may take


def run(*command, **options):
    """Runs a command that has to succeed; its standard output."""
    return subprocess.run([str(word) for word in command], check=True, timeout=LONGEST,
                          stdout=subprocess.PIPE, text=True, **options).stdout


def timed(*command):
    """Seconds that a command takes, its output thrown away."""
    started = time.monotonic()
    subprocess.run([str(word) for word in command], check=True, timeout=LONGEST,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return time.monotonic() - started


def call(method, **arguments):
    """An answer of the daemon, as the `ubus` command gives it."""
    return json.loads(run("ubus", "-t", LONGEST, "call", "fwupdate", method,
                          json.dumps(arguments)))


def expect(answer, key, wanted):
    """A measurement of a failure would be a lie."""
    if answer.get(key) != wanted:
        raise RuntimeError(f"{key} is {answer.get(key)!r} and not {wanted!r}: {answer}")


@contextlib.contextmanager
def service(*command, wait_for, environment=None):
    """A process with an object on the bus, for as long as the context lasts."""
    process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL,
                               env={**os.environ, **(environment or {})})
    try:
        run("ubus", "-t", "20", "wait_for", wait_for)
        run("ubus", "-t", "20", "call", wait_for, "state")
        yield process
    finally:
        process.terminate()
        process.wait(timeout=LONGEST)


def daemon(*arguments, program=DAEMON):
    """The daemon, as init starts it."""
    return service(program, *arguments, wait_for="fwupdate")


def least_object(name="least_object"):
    """The baseline of everything on the bus."""
    return service(TOOLS / name, wait_for="least")


def has_router_curl():
    """Whether bench/router-curl has made its programs."""
    return (ROUTER_CURL / "fwupdate").exists() and (ROUTER_CURL / "least_object").exists()


def memory(pid):
    """PSS and private memory in KiB. Shared pages are divided among those who map them."""
    fields = {}
    for line in pathlib.Path(f"/realproc/{pid}/smaps_rollup").read_text().splitlines()[1:]:
        name, value = line.split()[:2]
        fields[name.rstrip(":")] = int(value)
    return fields["Pss"], fields["Private_Clean"] + fields["Private_Dirty"]


def activity(pid):
    """CPU nanoseconds and how often the process woke up, since it began. The kernel counts a
    wake-up as a voluntary change of context."""
    nanoseconds = int(pathlib.Path(f"/realproc/{pid}/schedstat").read_text().split()[0])
    status = pathlib.Path(f"/realproc/{pid}/status").read_text()
    wakes = next(int(line.split()[1]) for line in status.splitlines()
                 if line.startswith("voluntary_ctxt_switches"))
    return nanoseconds, wakes


def children(pid):
    """Process ids of its children."""
    text = pathlib.Path(f"/realproc/{pid}/task/{pid}/children").read_text()
    return [int(word) for word in text.split()]


def replace_tool(path, body):
    """Puts a script in the place of one of the router's tools."""
    tool = pathlib.Path(path)
    tool.unlink()
    tool.write_text(f"#!/bin/sh\n{body}\n")
    tool.chmod(0o755)


def offer(name):
    """The daemon is to ask for this manifest of the server: `bench/run` made them."""
    pathlib.Path("/etc/config/system").write_text(
        "config system\n\toption fwupdate_xml_url "
        f"'http://192.0.2.1/{name}.xml'\n")
