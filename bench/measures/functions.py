# SPDX-License-Identifier: ISC
"""The daemon's own functions, by Google Benchmark, on the simulated router."""
import json
import subprocess

from measures.samples import Row


def rows(build, project):
    """One row a function and argument: the medians of fifteen repetitions. They have no baseline:
    what is of interest is how they grow."""
    command = [project / "testbed/router", "--build", build, "--bare", "--",
               build / "bench/functions", "--benchmark_format=json",
               "--benchmark_repetitions=15", "--benchmark_min_time=0.02",
               "--benchmark_enable_random_interleaving=true"]
    output = subprocess.run([str(word) for word in command], check=True, stdout=subprocess.PIPE,
                            text=True).stdout
    samples = {}
    for entry in json.loads(output)["benchmarks"]:
        if entry["run_type"] == "iteration":
            samples.setdefault(entry["run_name"], []).append(entry["real_time"])
    result = []
    for name, values in samples.items():
        function, *words = name.split("/")
        last = words[-1].split(":")[-1] if words else None
        result.append(Row(f"`{name}`", "ns", values, [], "", x=float(last) if last else None,
                          series="/".join([function, *words[:-1]])))
    return sorted(result, key=lambda row: (row.series, row.x or 0))
