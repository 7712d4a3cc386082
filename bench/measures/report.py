# SPDX-License-Identifier: ISC
"""docs/benchmarks.md: the tables of one run, where and with what they were measured, the plots.
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
    "check": "`check`", "download": "Download", "verify": "Image check",
    "update": "A whole update", "waiting": "Waiting", "functions": "Single functions",
}
# file -> (title, label of x, label of y, the series drawn, the logarithmic axes)
PLOTS = {
    "image-size": ("Throughput by image size", "MiB", "MB/s", ("download", "verify"), "x"),
    "worker-memory": ("Most memory of the download worker", "MiB", "KiB", ("worker memory",), ""),
    "clients": ("Latency of state by clients, median", "clients", "us",
                ("clients p50", "clients p50 download"), ""),
    "manifest": ("Reading a manifest", "bytes", "ns", ("manifest_parse",), ""),
    "mtd": ("Looking up a partition", "lines of /proc/mtd", "ns", ("partition_size",), ""),
    "log": ("Log lines", "lines", "ns", ("log_lines/debug:1", "log_lines/debug:0"), "xy"),
}
# series -> (how the daemon's line is called, how the baseline's; None: its rows' own name for it,
# "": not drawn)
LEGENDS = {
    "download": ("download", None),
    "verify": ("test", None),
    "worker memory": ("the worker", ""),
    "clients p50": ("fwupdate, idle", "least object"),
    "clients p50 download": ("fwupdate, during a download", "least object, during a download"),
    "manifest_parse": ("fwupdate", None),
    "partition_size": ("fwupdate", None),
    "log_lines/debug:1": ("with --debug", None),
    "log_lines/debug:0": ("without", None),
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


def plot(folder, name, measured):
    """One SVG by gnuplot; every point is a median. Returns False without points."""
    title, x_label, y_label, wanted, logarithmic = PLOTS[name]
    lines = []
    for series in wanted:
        for kind, legend in zip(("ours", "baseline"), LEGENDS[series]):
            points = [(row.x, statistics.median(getattr(row, kind)), row.baseline_name)
                      for rows in measured.values() for row in rows
                      if row.series == series and getattr(row, kind)]
            if points and legend != "":
                lines.append((legend or points[0][2], sorted(points)))
    if not lines:
        return False
    script = [f"set terminal svg size 640,400 font 'sans,12' background 'white'",
              f"set output '{folder}/bench-{name}.svg'", f"set title '{title}'",
              f"set xlabel '{x_label}'", f"set ylabel '{y_label}'", "set key below",
              f"set yrange [{'1' if 'y' in logarithmic else '0'}:*]", "set grid"]
    script += [f"set logscale {axis} {base}" for axis, base in (("x", 2), ("y", 10))
               if axis in logarithmic]
    quoted = [label.replace("'", "''") for label, _ in lines]
    script.append("plot " + ", ".join(f"'-' with linespoints title '{label}' noenhanced"
                                      for label in quoted))
    for _, points in lines:
        script += [f"{x} {y}" for x, y, _ in points] + ["e"]
    subprocess.run(["gnuplot"], input="\n".join(script) + "\n", text=True, check=True)
    return True


def write(project, build, measured, runs, load):
    """The document and its pictures."""
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
    lines += ["", "## How cost grows", ""]
    for name in PLOTS:
        if plot(folder, name, measured):
            lines += [f"![{PLOTS[name][0]}](pictures/bench-{name}.svg)", ""]
    (project / "docs/benchmarks.md").write_text("\n".join(lines).rstrip() + "\n")
