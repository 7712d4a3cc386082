# SPDX-License-Identifier: ISC
"""The maker's programs' types, the alert rules, and the figures that these are about."""
import json
import shutil
import subprocess

from simulated_router import PROJECT

from fleet_parts.lines import question

RULES = PROJECT / "publish/server/prometheus"


def check(folder):
    missing = [tool for tool in ("mypy", "promtool") if shutil.which(tool) is None]
    if missing:
        print(f"bench/fleet: {' and '.join(missing)} not installed; './setup.sh --fleet' brings it.")
        return 1
    json.loads((RULES / "grafana.json").read_text())
    log, figures = folder / "update.log", folder / "fwupdate.prom"
    log.write_text("".join(question(1763769600 + n, f"SN{n}", "171000000", "candidate", f'QOR,"M{n % 3}') for n in range(99)))
    subprocess.run([PROJECT / "publish/fwupdate-fleet", "report", log, "--build", "174200000", "--prometheus", figures],
                   check=True, stdout=subprocess.DEVNULL)
    good = tried(["mypy", "--cache-dir", folder, "fwupdate_maker"], PROJECT / "publish")
    good &= tried(["promtool", "check", "rules", "fwupdate.rules.yml"], RULES)
    good &= tried(["promtool", "test", "rules", "fwupdate.test.yml"], RULES)
    good &= tried(["promtool", "check", "metrics"], RULES, figures.read_bytes())
    return 0 if good else 1


def tried(words, folder, given=None):
    result = subprocess.run(words, cwd=folder, input=given, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    print(f"{words[0]} {words[1]}: {'good' if result.returncode == 0 else result.stdout.decode()}", flush=True)
    return result.returncode == 0
