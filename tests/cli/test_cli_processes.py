# SPDX-License-Identifier: ISC
"""How many processes a command starts: on a router each takes milliseconds. Counted is what the
kernel made for it, itself included; what the daemon starts for itself is not among it."""
import os
import re

import pytest

from kept_answer import await_download
from simulated_router import HELD_URL, PROJECT, Router, make_server

NOTES = "Grüße, žluť, 更新."  # what is no ASCII is looked at more closely
LOOK = f"{PROJECT}/cli/fwupdate-job call status"
MADE = re.compile(r"^\d+ +(?:clone3?|v?fork|<\.\.\. (?:clone3?|v?fork) resumed).* = [1-9]\d*$", re.M)


def processes(router, command, status=0):
    trace = router.folder / "trace"
    result = router.run(f"echo {{}} | /host/usr/bin/strace -f -qq -e trace=clone,clone3,fork,vfork "
                        f"-e signal=none -o {trace} {command}")
    assert result.status == status, result.output
    return 1 + len(MADE.findall(trace.read_text()))


@pytest.fixture(scope="module")
def router(tmp_path_factory):
    root = make_server(tmp_path_factory.mktemp("server"), 3_000_000, notes=NOTES, url=HELD_URL)
    with Router(server_root=root) as router:
        # The router's is one program; the testbed's is a script. Nothing is being installed.
        router.must("mv /bin/pidof /tmp/pidof && cp /host/usr/bin/false /bin/pidof")
        yield router


def test_the_count_counts(router):
    assert processes(router, "sh -c true") == 1
    assert processes(router, "sh -c '/host/usr/bin/true; x=$(/host/usr/bin/true | /host/usr/bin/true)'") == 5


@pytest.mark.skipif(os.environ.get("FWUPDATE_EMULATED", "x86_64-musl") != "x86_64-musl",
                    reason="the emulator's own threads would be counted")
def test_a_look_of_the_page_and_the_short_commands(router):
    assert processes(router, LOOK) <= 3
    assert processes(router, "fwupdate-cli check", 10) <= 15
    assert processes(router, "fwupdate-cli status") <= 6
    router.must("cp /tmp/pidof /bin/pidof")
    router.hold_downloads()
    router.must("fwupdate-cli update --yes --detach")
    await_download(router)
    assert processes(router, LOOK) <= 3
    assert processes(router, "fwupdate-cli status") <= 6
    router.release()
    router.must("fwupdate-cli watch")
    assert processes(router, LOOK) <= 3
    assert processes(router, "fwupdate-cli status") <= 6
    # What the last check left, cut inside a character, is the worst case.
    router.must("""cd /tmp/fwupdate-cli/job.* && printf '{"version":"\\303\\244\\303"}\\n' >answer""")
    assert processes(router, LOOK) <= 3
