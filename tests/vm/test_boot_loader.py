# SPDX-License-Identifier: ISC
"""What the boot loader does when it is told nothing, nonsense, or has nothing to start."""
import pathlib

import machine
import pytest
from flash import (ENVIRONMENT, ENVIRONMENT_SIZE, PARTITIONS, content, environment_part, read_environment,
                   set_variable, wait_until, write)
from steps import begin_update, facts

STARTS_FIRST = "boot loader: starting MODEL-X from firmware\\."


def test_bootpart_that_is_not_set_starts_the_first_firmware_and_an_update_sets_it(restart, flash, tmp_path):
    set_variable(flash, tmp_path, "bootpart")
    device = restart()
    device.wait_console(STARTS_FIRST, device.wait_console("boot loader: bootpart is not set"))
    assert device.output("cat /etc/router/booted") == "firmware"
    begin_update(device, "firmware2")
    wait_until(lambda: (read_environment(environment_part(flash), tmp_path) or {}).get("bootpart") == "firmware2",
               "bootpart is set")


@pytest.mark.parametrize("name", ["firmware3", "rootfs"])
def test_bootpart_that_names_no_partition_for_a_firmware_starts_the_first(restart, flash, tmp_path, name):
    set_variable(flash, tmp_path, "bootpart", name)
    device = restart(wait=False)
    said = device.wait_console(f"boot loader: bootpart is '{name}', which is no partition for a firmware")
    device.wait_console(STARTS_FIRST, said)


def test_environment_that_is_lost_starts_the_first_firmware(restart, flash):
    write(flash, ENVIRONMENT, b"\xff" * ENVIRONMENT_SIZE)
    device = restart(wait=False)
    device.wait_console(STARTS_FIRST, device.wait_console("boot loader: the environment cannot be read"))


def test_without_any_firmware_it_stops_at_its_prompt_and_recovers_from_there(restart, flash):
    name = 32  # place in the header, which has a checksum of its own
    write(flash, PARTITIONS["firmware"] + name, b"MODEL-Y")
    write(flash, PARTITIONS["firmware2"], b"\xff" * 65536)
    before = flash.read_bytes()
    device = restart(wait=False)
    with pytest.raises(machine.NoFirmware):
        device.wait_up()
    end = 0
    for line in ("the image in firmware is damaged or missing", "the image in firmware2 is damaged or missing",
                 "there is no firmware to start"):
        end = device.wait_console(f"boot loader: {line}", end)
    assert flash.read_bytes() == before

    # It stays there, whatever ends, and answers.
    end = device.wait_console("boot loader> ", end)
    device.console.send(b"exit\n")
    end = device.wait_console("boot loader> ", end)
    device.console.send(b"fw_printenv -n bootpart\n")
    end = device.wait_console("\nfirmware\r?\n", end)

    device.console.send(b"recover\n")
    end = device.wait_console("recover: written and read back", end)
    device.wait_up()
    assert facts(device) == {"revision": "r1300", "booted": "firmware", "bootpart": "firmware"}
    device.quit()
    image = pathlib.Path(machine.FIRMWARE).read_bytes()
    assert content(flash, "firmware", len(image)) == image
