# SPDX-License-Identifier: ISC
"""The alert rules and the figures that they are about, checked with Prometheus's own tool."""
import json
import shutil
import subprocess

from simulated_router import PROJECT

from fleet_parts.lines import question

RULES = PROJECT / "publish/server/prometheus"


def check(folder):
    if shutil.which("promtool") is None:
        print("bench/fleet: promtool is not installed; './setup.sh --fleet' brings it.")
        return 1
    log, figures = folder / "update.log", folder / "fwupdate.prom"
    log.write_text("".join(question(1763769600 + n, f"SN{n}", "171000000", "candidate", f'QOR,"M{n % 3}\\\\') for n in range(99)))
    subprocess.run([PROJECT / "publish/fwupdate-fleet", "report", log, "--build", "174200000", "--prometheus", figures],
                   check=True, stdout=subprocess.DEVNULL)
    json.loads((RULES / "grafana.json").read_text())
    for words, given in ((["check", "rules", "fwupdate.rules.yml"], None), (["test", "rules", "fwupdate.test.yml"], None),
                         (["check", "metrics"], figures.read_bytes())):
        result = subprocess.run(["promtool", *words], cwd=RULES, input=given, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        print(f"promtool {' '.join(words)}: {'good' if result.returncode == 0 else result.stdout.decode()}")
        if result.returncode != 0:
            return 1
    return 0
