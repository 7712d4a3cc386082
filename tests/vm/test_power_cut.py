# SPDX-License-Identifier: ISC
"""The machine is killed in the middle of an update and started again. Whatever was going
on, the boot environment is whole and a firmware starts."""
import json
import pathlib
import subprocess
import sys

import machine
import pytest
from conftest import PROJECT
from flash import (ENVIRONMENT, ENVIRONMENT_SIZE, content, environment_part, logged_writes,
                   read_environment, wait_until)
from steps import SLOW, await_download, begin_update, facts, hold_at_verification

OLD = {"revision": "r1234", "booted": "firmware", "bootpart": "firmware"}


def check_environment(flash, tmp_path, before, *bootparts):
    """All variables are there, and `bootpart` is one of these."""
    now = read_environment(environment_part(flash), tmp_path)
    assert now is not None, "the boot environment is lost"
    assert now["bootpart"] in bootparts
    assert {**now, "bootpart": ""} == {**before, "bootpart": ""}


def cut_while_flashing(device, flash, partition, moment):
    """Power is cut when the installer has erased, or written, 4 MiB of the partition."""
    new = pathlib.Path(machine.FIRMWARE).read_bytes()
    size = 4 << 20
    begin_update(device, partition)
    wait_until(lambda: content(flash, partition, size)[-256:] == b"\xff" * 256, "the fourth MiB is erased")
    if moment == "writing":  # the old image's bytes may be the same at this place
        wait_until(lambda: content(flash, partition, size)[-256:] == new[size - 256:size], "the fourth MiB is written")
    device.cut_power()
    # Cut off in the middle: the boot loader needs the checksum of what follows the header.
    left = content(flash, partition, len(new))
    assert left != new and (left[:64] == new[:64]) == (moment == "writing")


@pytest.fixture
def before(flash, tmp_path):
    return read_environment(environment_part(flash), tmp_path)


def test_during_the_download_changes_nothing(router, restart, flash, tmp_path, before):
    device = router(server_rate=SLOW)
    begin_update(device, "firmware2")
    await_download(device)
    device.cut_power()
    check_environment(flash, tmp_path, before, "firmware")
    assert facts(restart()) == OLD


def test_during_the_verification_changes_nothing(router, flash, tmp_path, before):
    device = router()
    begin_update(device, "firmware2")
    hold_at_verification(device)
    device.cut_power()
    check_environment(flash, tmp_path, before, "firmware")
    # The command of the README, this time; its exit status is the command's.
    asked = subprocess.run(
        [sys.executable, PROJECT / "testbed" / "vm", "--flash", flash, "--",
         "sh", "-c", "cat /etc/router/booted; ubus call system board | jsonfilter -e @.release.revision; exit 7"],
        stdout=subprocess.PIPE, text=True, check=False)
    assert (asked.returncode, asked.stdout) == (7, "firmware\nr1234\n")


def test_during_fw_setenv_leaves_one_of_the_two_copies(router, restart, flash, tmp_path, before):
    device = router()
    environment = environment_part(flash)
    begin_update(device, "firmware2")
    wait_until(lambda: environment_part(flash) != environment, "the environment is written")
    device.cut_power()
    check_environment(flash, tmp_path, before, "firmware", "firmware2")
    now = facts(restart())
    # Both partitions hold the factory's firmware; the one that is named starts.
    assert now == {"revision": "r1234", "booted": now["bootpart"], "bootpart": now["bootpart"]}


@pytest.mark.parametrize("partition, other", [("firmware2", "firmware"), ("firmware", "firmware2")])
def test_during_flashing_starts_the_other_partition(router, restart, flash, tmp_path, before, partition, other):
    """In `firmware` the router writes over what it runs from."""
    device = router()
    cut_while_flashing(device, flash, partition, "writing")
    check_environment(flash, tmp_path, before, partition)
    device = restart()
    assert facts(device) == {"revision": "r1234", "booted": other, "bootpart": partition}
    assert f"the image in {partition} is damaged".encode() in device.console.received


def test_twice_in_a_row_and_while_the_boot_loader_falls_back(router, restart, flash, tmp_path, before):
    device = router()
    cut_while_flashing(device, flash, "firmware2", "erasing")
    device = restart(wait=False)
    device.wait_console("the image in firmware2 is damaged")
    device.cut_power()
    device = restart()
    fallen_back = {"revision": "r1234", "booted": "firmware", "bootpart": "firmware2"}
    assert facts(device) == fallen_back
    cut_while_flashing(device, flash, "firmware2", "writing")
    check_environment(flash, tmp_path, before, "firmware2")
    device = restart()
    assert facts(device) == fallen_back
    assert json.loads(device.output("ubus -t 280 call fwupdate check"))["need_update"] == "1"


def test_at_any_moment_of_fw_setenv_an_environment_is_left(router, flash, tmp_path, before):
    """The emulator logs what fw_setenv writes, in sectors of 512 bytes. The tool that reads
    the environment gets it as after each of them, and as in the middle of each."""
    part = bytearray(environment_part(flash))
    log = tmp_path / "writes"
    log.touch()
    device = router(write_log=log)
    device.output("fw_setenv bootpart firmware2")
    device.quit()
    seen = []
    for offset, data in logged_writes(log):
        place = offset - ENVIRONMENT
        assert 0 <= place < ENVIRONMENT_SIZE
        for size in (len(data) // 2, len(data)):
            part[place:place + size] = data[:size]
            now = read_environment(bytes(part), tmp_path)
            assert now is not None, f"lost after {len(seen)} moments"
            assert {**now, "bootpart": ""} == {**before, "bootpart": ""}
            if not seen or seen[-1] != now["bootpart"]:
                seen.append(now["bootpart"])
    assert seen == ["firmware", "firmware2"]
    assert bytes(part) == environment_part(flash)


def test_memory_running_out_during_a_download_restarts_the_old_firmware(router, flash, tmp_path, before):
    device = router(server_rate=SLOW)
    begin_update(device, "firmware2")
    await_download(device)
    # One text that doubles, until no memory is left.
    device.output("awk 'BEGIN { text = \"x\"; while (1) text = text text }' >/dev/null 2>&1 </dev/null &")
    device.wait_console("Kernel panic - not syncing: Out of memory")
    device.wait_up()
    assert facts(device) == OLD
    assert json.loads(device.output("ubus -t 280 call fwupdate check"))["need_update"] == "1"
    device.quit()
    check_environment(flash, tmp_path, before, "firmware")
