# SPDX-License-Identifier: ISC
"""Fixtures of the virtual router's tests. A start takes half a minute or more, so the
machine is started once; each test goes on from its saved state, with a flash file and
an update server of its own."""
import fcntl
import os
import pathlib
import shutil
import sys

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "testbed" / "machine"))
import machine  # noqa: E402

MANIFEST = """<?xml version="1.0"?>
<update><buildtime>174200000</buildtime><url>http://update.example.com/firmware.bin</url>
<version>r1300</version></update>
"""


def offer(folder, image):
    """What the update server has: the image, as release r1300."""
    folder.mkdir(exist_ok=True)
    (folder / "update.xml").write_text(MANIFEST, encoding="utf-8")
    (folder / "firmware.bin").unlink(missing_ok=True)
    (folder / "firmware.bin").symlink_to(image)
    return folder


@pytest.fixture(scope="session")
def saved(tmp_path_factory):
    """The folder with `state` and `flash` of a router that has just started."""
    common = tmp_path_factory.getbasetemp()
    if "PYTEST_XDIST_WORKER" in os.environ:
        common = common.parent  # one start for all workers
    folder = common / "saved"
    folder.mkdir(exist_ok=True)
    with open(folder / "lock", "w", encoding="utf-8") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not (folder / "state").exists():
            flash = machine.factory_flash(folder / "flash")
            with machine.Machine(folder, flash, offer(folder / "server", machine.FIRMWARE)) as router:
                router.wait_up()
                router.save(folder / "state.new")
            (folder / "state.new").rename(folder / "state")
    return folder


@pytest.fixture
def flash(saved, tmp_path):
    """The flash file of this test, as the saved machine left it."""
    path = tmp_path / "flash"
    shutil.copyfile(saved / "flash", path)
    yield path
    path.unlink()  # 64 MiB that nobody looks at; the console's log stays


@pytest.fixture
def router(saved, flash, tmp_path):
    """router(image=..., **options): the started router, with that image on its server."""
    machines = []

    def resume(image=machine.FIRMWARE, **options):
        server = offer(tmp_path / "server", image)
        machines.append(machine.Machine(tmp_path, flash, server, state=saved / "state", **options))
        return machines[-1]

    yield resume
    for each in machines:
        if each.process.poll() is None:
            each.cut_power()


@pytest.fixture
def restart(flash, tmp_path):
    """restart(): power on, with the flash as it is now; wait=False: only that."""
    machines = []

    def power_on(wait=True):
        server = offer(tmp_path / "server", machine.FIRMWARE)
        machines.append(machine.Machine(tmp_path, flash, server))
        if wait:
            machines[-1].wait_up()
        return machines[-1]

    yield power_on
    for each in machines:
        if each.process.poll() is None:
            each.cut_power()
