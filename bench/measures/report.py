# SPDX-License-Identifier: ISC
"""docs/benchmarks.md: the tables of one run, where and with what they were measured, the plot.
What a figure means stands in docs/benchmark-notes.md, which people write."""
import datetime
import pathlib
import platform
import statistics
import subprocess

from measures.samples import table

TITLES = {
    "size": "Size on flash", "memory": "Resident memory", "start": "Start",
    "state": "`state`, idle", "state-download": "`state` during a download",
    "check": "`check`", "look": "A page's look", "download": "Download", "verify": "Image check",
    "update": "A whole update", "guard": "The guard", "waiting": "Waiting",
}
# The one cost that does not grow in a straight line, and what its lines are called.
PLOT = "Throughput by image size"
DRAWN = {"download": "download", "verify": "test"}


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


def plot(picture, measured):
    """An SVG by gnuplot; every point is a median. A baseline's line has its rows' own name for it."""
    lines = []
    for series, name in DRAWN.items():
        rows = sorted((row for rows in measured.values() for row in rows if row.series == series),
                      key=lambda row: row.x)
        lines += [(name, [(row.x, statistics.median(row.ours)) for row in rows]),
                  (rows[0].baseline_name, [(row.x, statistics.median(row.baseline)) for row in rows])]
    script = ["set terminal svg size 640,400 font 'sans,12' background 'white'",
              f"set output '{picture}'", f"set title '{PLOT}'", "set xlabel 'MiB'", "set ylabel 'MB/s'",
              "set key below", "set yrange [0:*]", "set grid", "set logscale x 2",
              "plot " + ", ".join(f"'-' with linespoints title '{name}' noenhanced"
                                  for name in (name.replace("'", "''") for name, _ in lines))]
    for _, points in lines:
        script += [f"{x} {y}" for x, y in points] + ["e"]
    subprocess.run(["gnuplot"], input="\n".join(script) + "\n", text=True, check=True)


def write(project, build, measured, runs, load):
    """The document and its picture."""
    folder = project / "docs/pictures"
    folder.mkdir(parents=True, exist_ok=True)
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
    plot(folder / "bench-image-size.svg", measured)
    lines += ["", "## How cost grows", "", f"![{PLOT}](pictures/bench-image-size.svg)"]
    (project / "docs/benchmarks.md").write_text("\n".join(lines) + "\n")
