# SPDX-License-Identifier: ISC
"""What the guard adds to an installation: verifying 24 MiB, beside `usign` alone over the same
bytes. The `sysupgrade` behind it does nothing."""
import pathlib
import shutil

from measures import router

from measures.samples import Row, interleave

PROJECT = pathlib.Path(__file__).resolve().parents[2]
LIBRARY = pathlib.Path("/usr/lib/fwupdate")
IMAGE = pathlib.Path("/tmp/fwupdate.bin")
PLACE = pathlib.Path("/tmp/fwupdate-guard")
SIGNED = router.SERVER_ROOT / "signed-24.bin"
KEYS = pathlib.Path("/etc/fwupdate/keys")
BEHIND = pathlib.Path("/tmp/behind")


def install():
    shutil.copytree(PROJECT / "guard", LIBRARY)
    (LIBRARY / "guard").mkdir()
    (LIBRARY / "sysupgrade").rename(LIBRARY / "guard/sysupgrade")
    shutil.copytree(router.SERVER_ROOT / "keys", KEYS)
    BEHIND.mkdir()
    (BEHIND / "sysupgrade").write_text("#!/bin/sh\n")
    (BEHIND / "sysupgrade").chmod(0o755)
    router.run(LIBRARY / "trial", "start")


def verify(runs):
    """From the call of the guard to that of the real one, with all that is written to the boot
    environment; and `usign` over what is signed."""
    install()
    data = SIGNED.read_bytes()
    size = int.from_bytes(data[-4:], "big")
    message, signature = pathlib.Path("/tmp/message"), pathlib.Path("/tmp/signature")
    message.write_bytes(data[:-size])
    signature.write_bytes(data[-size:-16])

    def ours():
        IMAGE.write_bytes(data)
        router.run("/usr/sbin/fw_setenv", "upgrade_available", "0")
        router.run("/usr/sbin/fw_setenv", "bootpart", "firmware")
        seconds = router.timed("/usr/bin/env", f"PATH={LIBRARY}/guard:{BEHIND}", "sysupgrade", "-F", IMAGE)
        assert not (PLACE / "refused").exists(), (PLACE / "refused").read_text()
        return seconds

    def usign():
        return router.timed("/usr/bin/usign", "-V", "-q", "-m", message, "-P", KEYS, "-x", signature)

    got = interleave(runs, {"ours": ours, "usign": usign})
    return [Row("guard, 24 MiB", "s", got["ours"], got["usign"], "`usign` alone")]
