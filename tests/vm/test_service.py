# SPDX-License-Identifier: ISC
"""The package's service on a real kernel: init keeps the daemon running."""
import json

from steps import SLOW, await_download, begin_update, facts

INSTANCE = "/var/run/services/fwupdate.pid"


def test_after_a_crash_in_a_download_the_daemon_comes_back(router, flash):
    """The worker that it left behind keeps new ones away until its next write."""
    before = flash.read_bytes()
    device = router(server_rate=SLOW)
    crashed = device.output(f"cat {INSTANCE}")
    begin_update(device, "firmware2")
    await_download(device)
    assert device.output(f"readlink /proc/{crashed}/exe") == "/usr/sbin/fwupdate"
    device.output(f"kill -KILL {crashed}")
    device.output(f"until [ $(cat {INSTANCE}) != {crashed} ] && ubus -t 5 call fwupdate state; do usleep 200000; done")
    assert json.loads(device.output("ubus -t 280 call fwupdate check"))["need_update"] == "1"
    assert device.output("pidof fwupdate | wc -w") == "1"
    assert facts(device) == {"revision": "r1234", "booted": "firmware", "bootpart": "firmware"}
    device.quit()
    assert flash.read_bytes() == before
