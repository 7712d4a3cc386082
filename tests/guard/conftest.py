# SPDX-License-Identifier: ISC
"""A simulated router with the guard, and what the tests tell it by name. One router serves a
file of tests; each test finds it as if it had just started."""
import os
import pathlib
import shutil
import subprocess
import sys
import time

import pytest

HERE = pathlib.Path(__file__).resolve()
sys.path[:0] = [str(HERE.parents[1] / "support"), str(HERE.parents[2] / "testbed/machine")]
from signed_images import Key, signed, with_metadata  # noqa: E402
from simulated_router import BUILD, PROJECT, Router, make_server  # noqa: E402

GUARD = "/usr/lib/fwupdate/guard/sysupgrade"
TRIAL = "/usr/lib/fwupdate/trial"
IMAGE = "/tmp/fwupdate.bin"
# As the boot loader of the virtual router has it.
ENVIRONMENT = "bootpart=firmware bootlimit=3 altbootcmd=go"


class Guarded:
    """The router of a test, with keys and images."""

    def __init__(self, router, folder):
        self.router, self.folder, self.server = router, folder, folder / "server"
        self.keys = {name: Key(folder, name) for name in ("maker", "other")}
        self.must, self.run = router.must, router.run

    def restart(self, told="firmware"):
        """As after a start of the router, from the partition that the boot loader tells."""
        self.must(f"echo 'console=ttyS0 {f'bootpart={told}' if told else ''} quiet' >/proc/cmdline;"
                  f"rm -rf /tmp/fwupdate-guard; {TRIAL} start")

    def reset(self):
        self.must("rm -rf /tmp/fwupdate* /etc/fwupdate /var/log/sysupgrade /var/log/reboot; : >/var/log/messages;"
                  "(cd /root/backup && find . ! -type d | while read -r file; do rm -f /$file; mv $file /$file; done);"
                  "cp /root/board.json /etc/router/; cp /root/fwupdate /etc/config/;"
                  "/host/usr/bin/mkenvimage -s 0x4000 -o /etc/router/u-boot-env.bin /etc/router/u-boot-env.txt;"
                  f"for pair in {ENVIRONMENT}; do fw_setenv ${{pair%%=*}} ${{pair#*=}}; done")
        self.trust("maker")
        self.restart()

    def trust(self, *names):
        self.must("rm -rf /etc/fwupdate/keys; mkdir -p /etc/fwupdate/keys")
        for name in names:
            key = self.keys[name]
            self.must(f"cp {key.public} /etc/fwupdate/keys/{key.fingerprint}")

    def body(self, size=100_000):
        return os.urandom(size)

    def good(self, **fields):
        """An image that is signed by the maker."""
        return signed(with_metadata(self.body(), **fields), self.keys["maker"])

    def put(self, image, path=IMAGE):
        (self.folder / "image").write_bytes(image)
        self.must(f"cp {self.folder}/image {path}")

    def install(self, image, target="firmware2", how="PATH=/usr/lib/fwupdate/guard:$PATH sysupgrade -F"):
        """As the daemon does it. The exit status."""
        self.put(image)
        self.must(f"fw_setenv bootpart {target}")
        return self.run(f"{how} {IMAGE}").status

    def variable(self, name):
        return self.run(f"fw_printenv -n {name} 2>/dev/null").output.strip()

    def variables(self, *names):
        return [self.variable(name) for name in names]

    def file(self, name):
        return self.run(f"cat /tmp/fwupdate-guard/{name} 2>/dev/null").output.strip()

    def reason(self):
        time, _, text = self.file("refused").partition(" ")
        assert not time or abs(int(time) - int(self.must("date +%s"))) < 600
        return text

    def installed(self):
        """How the real sysupgrade was called, or nothing."""
        return self.run("sed -n 's/^command: //p' /var/log/sysupgrade 2>/dev/null").output.split("\n")[:-1]

    def log(self):
        """What the guard said: all of it is written when a later line is."""
        mark = f"mark {time.monotonic_ns()}"
        self.must(f"logger '{mark}'")
        self.router.wait_for(f"grep -q '{mark}$' /var/log/messages")
        return self.must("sed -n 's/.* fwupdate-guard: //p' /var/log/messages").splitlines()

    def replace(self, path, script):
        """Another program in the place of one of the router's, for this test."""
        self.must(f"mkdir -p /root/backup$(dirname {path}); cp -P {path} /root/backup{path}; rm {path};"
                  f"printf '%s\\n' '#!/bin/sh' {script!r} >{path}; chmod 755 {path}")

    def remove(self, path):
        self.must(f"mkdir -p /root/backup$(dirname {path}); mv {path} /root/backup{path}")

    def assert_refused(self, reason, bootpart="firmware"):
        assert self.reason() == reason
        assert self.installed() == []
        assert self.variable("bootpart") == bootpart
        assert self.run(f"ls {IMAGE} /tmp/fwupdate-guard/image 2>/dev/null").output == ""
        assert self.variable("upgrade_available") != "1"
        assert [line for line in self.log() if "refused" in line] == [f"refused: {reason}"]


@pytest.fixture(scope="module")
def opened(tmp_path_factory):
    folder = tmp_path_factory.mktemp("guard")
    for package in ("fwupdate", "fwupdate-guard"):
        subprocess.run([PROJECT / "testbed/install-package", "--build", BUILD, package, folder / "root"],
                       check=True)
    (folder / "server").mkdir()
    make_server(folder / "server")
    with Router("--quiet", "--bind", folder, folder=folder, server_root=folder / "server") as router:
        # Between two rounds of checks five seconds are a quarter of one here.
        router.must(f"cp -R {folder}/root/. /; mkdir -p /root/backup; cp /etc/router/board.json /etc/config/fwupdate /root/;"
                    "sed -i 's/sleep 5/sleep 0.25/' /usr/lib/fwupdate/trial;"
                    "rm /sbin/reboot; printf '%s\\n' '#!/bin/sh' 'echo \"$0\" >>/var/log/reboot' >/sbin/reboot; chmod 755 /sbin/reboot")
        yield Guarded(router, folder)


@pytest.fixture
def guard(opened):
    opened.reset()
    return opened
