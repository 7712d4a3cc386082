# SPDX-License-Identifier: ISC
"""docs/benchmarks.md: the tables of one run, where and with what they were measured.
What a figure means stands in docs/benchmark-notes.md, which people write."""
import datetime
import pathlib
import platform
import subprocess

from measures.samples import table

TITLES = {
    "size": "Size on flash", "memory": "Resident memory", "start": "Start",
    "state": "`state`, idle", "state-download": "`state` during a download",
    "check": "`check`", "look": "A page's look", "verify": "Image check",
    "update": "A whole update", "guard": "The guard", "waiting": "Waiting",
}


def version(package):
    """Version of an installed Debian package."""
    output = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], check=False,
                            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True).stdout
    return output or "not installed"


def origins(build):
    """Which libubox and libubus were linked, as CMake said."""
    cache = (build / "CMakeCache.txt").read_text()
    return "the originals" if "FWUPDATE_ubus_LIBRARY:FILEPATH=/" in cache else "the stand-ins"


def header(build, runs, load):
    """Where, when and with what."""
    cpu = next((line.split(":")[1].strip() for line in
                pathlib.Path("/proc/cpuinfo").read_text().splitlines()
                if line.startswith("model name")), platform.machine())
    packages = ("g++", "libcurl4", "libmxml1", "zlib1g", "busybox", "nginx-light", "curl", "rauc",
                "swupdate")
    cores = subprocess.run(["nproc"], check=True, stdout=subprocess.PIPE, text=True).stdout.strip()
    return [
        f"- Date: {datetime.date.today()}; {runs} runs, the variants in turn.",
        f"- Machine: {cpu}, {cores} cores, Linux {platform.release()}; load average at the "
        f"start: {load:.2f}.",
        f"- libubox, libubus: {origins(build)}.",
        "- Debian packages: " + ", ".join(f"{name} {version(name)}" for name in packages) + ".",
    ]


def write(project, build, measured, runs, load):
    """The document."""
    lines = ["# Benchmarks", "",
             "Written by `bench/run --write`; [benchmark-notes.md](benchmark-notes.md) says what "
             "the figures mean.", "",
             "Each figure is the median of as many samples as its row says, with half the "
             "distance of the quartiles in percent; a size, and a minute of waiting, is one "
             "figure. A ratio is the daemon's figure divided by the baseline's of the same run.",
             ""]
    lines += header(build, runs, load)
    for name, rows in measured.items():
        lines += ["", f"## {TITLES[name]}", "", *table(rows)]
    (project / "docs/benchmarks.md").write_text("\n".join(lines) + "\n")
