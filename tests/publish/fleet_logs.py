# SPDX-License-Identifier: ISC
"""Access logs as nginx writes them, and fwupdate-fleet as an operator runs it."""
import datetime
import json

import forked_program
from simulated_router import PROJECT

START = 1763769600  # 2025-11-22, midnight UTC
HOUR, DAY = 3600, 86400
OLD, NEW = "171000000", "174200000"


def line(at, sn="SN1", fw=OLD, offer="stable", model="QOR,MODEL-X", address="192.0.2.10", path=None, status=200, size=525):
    """One line; `at` in seconds from the start."""
    stamp = datetime.datetime.fromtimestamp(START + at, datetime.timezone.utc).isoformat()
    path = path or ("/nothing/update.xml" if offer == "nothing" else f"/model-x/{offer}/update.xml")
    return f"{stamp}\t{status}\t{size}\tsn={sn}\tfw={fw}\tmodel={model}\t{offer}\t{address}\t{path}\n"


def image(at, build=NEW, status=200, size=8000):
    return line(at, "-", "-", "nothing", "-", path=f"/model-x/candidate/releases/{build}/firmware.bin", status=status, size=size)


class Fleet:
    """fwupdate-fleet in a folder of its own, with an nginx that only notes how it is called."""

    def __init__(self, folder):
        self.folder = folder
        self.state = folder / "state.db"
        self.config = folder / "rollout.conf"
        self.nginx = folder / "nginx"
        self.nginx.write_text(f'#!/bin/sh\necho "$@" >>{folder}/calls\n[ ! -e {folder}/refuse ] || [ "$1" != -t ] ||'
                              ' { echo "it does not fit" >&2; exit 1; }\n')
        self.nginx.chmod(0o755)

    def log(self, lines, name="update.log"):
        path = self.folder / name
        path.write_text("".join(lines))
        return path

    def run(self, *words):
        result = forked_program.run(PROJECT / "publish/fwupdate-fleet", words, self.folder)
        result.stdout, result.stderr = result.stdout.decode(), result.stderr.decode()
        result.text = result.stdout + result.stderr
        assert "Traceback" not in result.text, result.text
        return result

    def report(self, *words):
        result = self.run("report", *words, "--json")
        assert result.returncode == 0, result.text
        return json.loads(result.stdout)

    def kept(self, command, *words):
        """step or watch, at a time of the logs."""
        return self.run(command, *words, "--state", self.state, "--config", self.config, "--nginx", self.nginx)

    def calls(self):
        path = self.folder / "calls"
        return path.read_text().splitlines() if path.exists() else []


def stamp(at):
    return datetime.datetime.fromtimestamp(START + at, datetime.timezone.utc).isoformat()


def outcome(at, sn, kind):
    """The lines of a router that is offered the new build at that time."""
    later = {"updated": [(2 * HOUR, NEW)], "stuck": [(2 * HOUR, OLD), (26 * HOUR, OLD)], "taken back": [(HOUR, NEW), (2 * HOUR, OLD)],
             "silent": [], "on the way": [(60, OLD)]}[kind]
    return [(at, line(at, sn, OLD, "candidate"))] + [(at + more, line(at + more, sn, fw, "candidate")) for more, fw in later]


def in_order(timed):
    return [text for _, text in sorted(timed)]
