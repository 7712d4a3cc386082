# SPDX-License-Identifier: ISC
"""Start, `state` under load, `check`."""
import json
import pathlib
import subprocess

from measures import router
from measures.samples import Row, interleave

CHECK_SCRIPT = pathlib.Path(__file__).parent.parent / "check.sh"


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
    if small.exists():
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
    if small.exists():
        rows += [
            Row("start, router's libcurl", "ms", got["ours, small"], got["least"],
                "least object and one pidof", "<= 1.1"),
            Row("start, router's libcurl", "ms", got["ours, small"], got["least, small"],
                "the same with the daemon's libraries", "<= 1.1"),
        ]
    return rows


def load(object_name, clients, seconds, method="state"):
    """One run of bus_load."""
    answer = json.loads(router.run(router.TOOLS / "bus_load", object_name, method, clients,
                                   seconds))
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


def state(runs):
    """Calls per second and their latency, idle."""
    rows = []
    with router.daemon(), router.least_object():
        for clients in (1, 8, 64):
            got = interleave(runs, {"ours": lambda c=clients: load("fwupdate", c, 0.5),
                                    "least": lambda c=clients: load("least", c, 0.5)})
            rows += state_rows(f"`state`, {clients} clients", got, ("<= 1.05", "<= 1.2"))
            for row in rows[-3:]:
                row.x, row.series = clients, f"clients {row.what.split()[-1]}"
    return rows


def during_download(object_name, method="state"):
    """bus_load while a worker downloads: the update is at it before and after."""
    update = subprocess.Popen(
        ["ubus", "-t", str(router.LONGEST), "call", "fwupdate", "update",
         '{"force": "1", "timeout": 100}'], stdout=subprocess.DEVNULL)
    try:
        while "progress" not in router.call("state"):
            if update.poll() is not None:
                raise RuntimeError("the update ended before it could be watched")
        answer = load(object_name, 1, 0.4, method)
        if update.poll() is not None:
            raise RuntimeError("the download ended too early; it wants a larger image")
    finally:
        update.wait(timeout=router.LONGEST)
    return answer


def state_during_download(runs):
    """The same while a worker downloads at full speed."""
    router.offer("big")
    with router.daemon(), router.least_object():
        got = interleave(runs, {"ours": lambda: during_download("fwupdate"),
                                "least": lambda: during_download("least"),
                                "same": lambda: during_download("least", "download")})
    label = "`state` during a download, 1 client"
    return [*state_rows(label, got, ("<= 1.05", "<= 1.2")),
            *state_rows(label, got, ("<= 1.05", "<= 1.2"), "same",
                        "least object with the same answer")]


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
