# SPDX-License-Identifier: ISC
"""What the tests do on the router, by name."""
import json
import shlex

SLOW = 600_000  # bytes per second: a download of some 19 seconds


def facts(router):
    """Which firmware runs, from which partition, and which one is to be started next."""
    board = json.loads(router.output("ubus -t 280 call system board"))
    return {
        "revision": board["release"]["revision"],
        "booted": router.output("cat /etc/router/booted"),
        "bootpart": router.output("fw_printenv -n bootpart"),
    }


def _call(partition):
    request = json.dumps({"partition": partition, "timeout": 280})
    return f"ubus -t 280 call fwupdate update {shlex.quote(request)}"


def update(router, partition):
    """The answer of a whole update; the installer starts two seconds later."""
    return json.loads(router.output(_call(partition)))


def begin_update(router, partition):
    """An update whose answer nobody waits for."""
    router.output(f"{_call(partition)} >/dev/null 2>&1 </dev/null &")


def await_download(router):
    """Until the first bytes are there."""
    router.output("until [ -s /tmp/fwupdate.bin ]; do usleep 20000; done")


def hold_at_verification(router):
    """Stops the daemon while it has the downloaded image mapped, as for its check only."""
    router.output(
        "pid=$(pidof fwupdate | tr ' ' '\\n' | sort -n | head -n 1); [ \"$pid\" -gt 1 ] || exit 1;"
        "until grep -q fwupdate.bin /proc/$pid/maps; do :; done; kill -STOP $pid")
