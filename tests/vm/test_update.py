# SPDX-License-Identifier: ISC
"""Updates on the virtual router, from the bus call to the start of the new firmware."""
import json
import pathlib

import machine
from flash import PARTITION_SIZE, content, damage, enlarge
from steps import SLOW, await_download, begin_update, facts, update


def test_restarts_with_the_new_firmware_from_the_other_partition(router, flash):
    device = router()
    assert facts(device) == {"revision": "r1234", "booted": "firmware", "bootpart": "firmware"}
    answer = json.loads(device.output("ubus -t 280 call fwupdate check"))
    assert (answer["error_code"], answer["need_update"], answer["version"]) == ("0", "1", "r1300")

    assert update(device, "firmware2")["error_code"] == "0"
    device.wait_console("installer: on tmpfs, writing [0-9]+ bytes into firmware2")
    device.wait_up()

    assert facts(device) == {"revision": "r1300", "booted": "firmware2", "bootpart": "firmware2"}
    answer = json.loads(device.output("ubus -t 280 call fwupdate check"))
    assert (answer["error_code"], answer["need_update"]) == ("0", "0")
    device.quit()
    image = pathlib.Path(machine.FIRMWARE).read_bytes()
    assert content(flash, "firmware2", len(image)) == image


def test_writes_the_kernel_settings(router):
    device = router(server_rate=SLOW)
    read = "cat /proc/sys/vm/panic_on_oom /proc/sys/vm/min_free_kbytes"
    panic, free = device.output(read).split()
    assert panic == "0" and free != "1024"
    assert "drop_caches" not in device.output("dmesg")
    begin_update(device, "firmware2")
    await_download(device)
    assert device.output(read).split() == ["1", "1024"]
    assert "drop_caches: 3" in device.output("dmesg")


def test_image_as_large_as_the_partition_replaces_the_running_firmware(router, flash, tmp_path):
    image = enlarge(machine.FIRMWARE, PARTITION_SIZE, tmp_path / "large.bin")
    device = router(image)
    assert update(device, "firmware")["error_code"] == "0"
    device.wait_console("installer: on tmpfs, writing 25165824 bytes into firmware.")
    device.wait_up()
    assert facts(device) == {"revision": "r1300", "booted": "firmware", "bootpart": "firmware"}
    device.quit()
    assert content(flash, "firmware") == image.read_bytes()


def test_image_one_byte_larger_than_the_partition_is_not_installed(router, flash, tmp_path):
    before = content(flash, "firmware2")
    device = router(enlarge(machine.FIRMWARE, PARTITION_SIZE + 1, tmp_path / "larger.bin"))
    assert update(device, "firmware2")["error_code"] == "0"
    device.wait_console("sysupgrade: the image's 25165825 bytes do not fit into firmware2")
    assert facts(device)["revision"] == "r1234"
    device.quit()
    assert content(flash, "firmware2") == before


def test_damaged_image_leaves_the_router_as_it_was(router, flash, tmp_path):
    before = flash.read_bytes()
    device = router(damage(machine.FIRMWARE, tmp_path / "damaged.bin"))
    assert update(device, "firmware2")["error_code"] == "3"
    assert facts(device) == {"revision": "r1234", "booted": "firmware", "bootpart": "firmware"}
    device.quit()
    assert flash.read_bytes() == before
