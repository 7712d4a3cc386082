# SPDX-License-Identifier: ISC
"""Start, `state` under load, `check`."""
import contextlib
import json
import os
import pathlib
import subprocess

from measures import router
from measures.samples import Row, interleave

LOOK = pathlib.Path(__file__).parents[2] / "cli/fwupdate-job"
LOOK_SCRIPT = pathlib.Path(__file__).parent.parent / "look.sh"
CHECK_SCRIPT = pathlib.Path(__file__).parent.parent / "check.sh"
CLIENTS = (1, 8, 64)
GOALS = ("<= 1.05", "<= 1.2")  # of the median and of the 99th percentile
MOST_DOWNLOADS = 5  # that may end before a sample is through


def start(runs):
    """exec to object on the bus."""
    def sample(name, *command):
        return lambda: float(router.run(router.TOOLS / "start_time", name, *command))

    variants = {
        "ours": sample("fwupdate", router.DAEMON),
        "least": sample("least", router.TOOLS / "least_object", "--pidof"),
        "least, same libraries": sample("least", router.TOOLS / "least_object_same_libraries",
                                        "--pidof"),
        "bare": sample("least", router.TOOLS / "least_object"),
    }
    small = router.ROUTER_CURL
    if router.has_router_curl():
        variants["ours, small"] = sample("fwupdate", small / "fwupdate")
        variants["least, small"] = sample("least", small / "least_object", "--pidof")
    got = interleave(runs, variants)
    rows = [
        Row("start", "ms", got["ours"], got["least"], "least object and one pidof", "<= 1.1"),
        Row("start", "ms", got["ours"], got["least, same libraries"],
            "the same with the daemon's libraries"),
        Row("start of the least object: pidof's share", "ms", got["least"], got["bare"],
            "without pidof"),
    ]
    if router.has_router_curl():
        rows += [
            Row("start, router's libcurl", "ms", got["ours, small"], got["least"],
                "least object and one pidof", "<= 1.1"),
            Row("start, router's libcurl", "ms", got["ours, small"], got["least, small"],
                "the same with the daemon's libraries", "<= 1.1"),
        ]
    return rows


def load(object_name, clients, seconds, method="state", rounds=1):
    """One run of bus_load."""
    answer = json.loads(router.run(router.TOOLS / "bus_load", object_name, method, clients,
                                   seconds, rounds))
    if answer["failed"]:
        raise RuntimeError(f"{answer['failed']} calls of {object_name} failed")
    return answer


def state_rows(label, got, goals, least="least", name="least object"):
    """Rows of calls per second and of the percentiles."""
    rows = []
    for key, unit, goal in (("per_second", "calls/s", ""), ("p50", "us", goals[0]),
                            ("p99", "us", goals[1])):
        rows.append(Row(f"{label}: {key.replace('per_second', 'rate')}", unit,
                        [sample[key] for sample in got["ours"]],
                        [sample[key] for sample in got[least]], name, goal))
    return rows


def named(clients):
    return f"{clients} client" if clients == 1 else f"{clients} clients"


@contextlib.contextmanager
def cores_awake():
    """No core is idle: each has a process that runs only when nothing else wants to. Who is woken
    up then need not wait for a core that sleeps."""
    def yield_to_all():
        os.sched_setscheduler(0, os.SCHED_IDLE, os.sched_param(0))

    with contextlib.ExitStack() as stack:
        for _ in os.sched_getaffinity(0):
            spinner = subprocess.Popen(["/bin/sh", "-c", "while :; do :; done"],
                                       preexec_fn=yield_to_all)
            stack.callback(spinner.wait)
            stack.callback(spinner.kill)
        yield


def state(runs):
    """Calls per second and their latency, idle. A sample is a second's, by five rounds of
    clients."""
    rows = []

    def sample(name, clients):
        return lambda: load(name, clients, 0.2, rounds=5)

    with router.daemon(), router.least_object():
        for clients in CLIENTS:
            got = interleave(runs, {"ours": sample("fwupdate", clients),
                                    "least": sample("least", clients)})
            rows += state_rows(f"`state`, {named(clients)}", got, GOALS)
        with cores_awake():
            got = interleave(runs, {"ours": sample("fwupdate", 1), "least": sample("least", 1)})
            rows += state_rows("`state`, 1 client, no core asleep", got, ("", ""))
    return rows


class Download:
    """An update that downloads what `big` offers; begun anew when it has come to its end. What it
    brings is no image: nothing is installed."""

    def __init__(self):
        self.update = None

    def is_on(self):
        return "progress" in router.call("state")

    def wait(self):
        """Until there is none."""
        if self.update is not None:
            self.update.wait(timeout=router.LONGEST)

    def ensure(self):
        """Until there is one."""
        if self.is_on():
            return
        self.wait()
        self.update = subprocess.Popen(
            ["ubus", "-t", str(router.LONGEST), "call", "fwupdate", "update",
             '{"force": "1", "timeout": 100}'], stdout=subprocess.DEVNULL)
        while not self.is_on():
            if self.update.poll() is not None:
                raise RuntimeError("the update ended before it could be watched")

    def load(self, object_name, clients, method="state"):
        """bus_load while the download goes on: it does before and after."""
        for _ in range(MOST_DOWNLOADS):
            self.ensure()
            answer = load(object_name, clients, 0.4, method)
            if self.is_on() and self.update.poll() is None:
                return answer
        raise RuntimeError("the download ends too early; it wants a larger image")


def state_during_download(runs):
    """The same while a worker downloads at full speed."""
    router.offer("big")
    rows = []
    download = Download()
    with router.daemon(), router.least_object():
        for clients in CLIENTS:
            got = interleave(runs, {
                "ours": lambda c=clients: download.load("fwupdate", c),
                "least": lambda c=clients: download.load("least", c),
                "same": lambda c=clients: download.load("least", c, "download")})
            label = f"`state` during a download, {named(clients)}"
            rows += state_rows(label, got, GOALS)
            rows += state_rows(label, got, GOALS, "same", "least object with the same answer")
        download.wait()
    return rows


def check(runs):
    """A whole check."""
    def ours():
        return router.timed("ubus", "call", "fwupdate", "check")

    def script():
        return router.timed("/bin/sh", CHECK_SCRIPT)

    with router.daemon():
        router.expect(router.call("check"), "error_code", "0")
        got = interleave(runs, {"ours": ours, "script": script})
    ours_ms = [1000 * sample for sample in got["ours"]]
    script_ms = [1000 * sample for sample in got["script"]]
    return [Row("`check`", "ms", ours_ms, script_ms, "script with the same pipelines and curl",
                "<= 1.05")]


def look(runs):
    """What a page asks once a second while an update runs."""
    job = pathlib.Path("/tmp/fwupdate-cli/job.1")
    job.mkdir(parents=True, mode=0o700)
    for name, text in {"pid": os.getpid(), "watcher": os.getppid(), "started": 1763796000,
                       "arguments": "no firmware2 900 3 0"}.items():
        (job / name).write_text(f"{text}\n")

    def sample(script):
        return lambda: 1000 * router.timed("/bin/sh", script, "call", "status")

    with router.daemon():
        for script in (LOOK, LOOK_SCRIPT):
            update = json.loads(router.run("/bin/sh", script, "call", "status"))["update"]
            router.expect(update, "job", "running")
        got = interleave(runs, {"ours": sample(LOOK), "script": sample(LOOK_SCRIPT)})
    return [Row("a page's look", "ms", got["ours"], got["script"],
                "script with a program for each value")]
