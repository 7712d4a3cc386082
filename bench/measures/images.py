# SPDX-License-Identifier: ISC
"""Image check, and a whole update."""
import pathlib
import subprocess
import time

from measures import router
from measures.samples import Row, interleave

UPDATE_SCRIPT = pathlib.Path(__file__).parent.parent / "update.sh"
INSTALLED = pathlib.Path("/var/log/sysupgrade")
MIB = 1024 * 1024
SIZES = (1, 64)  # little, where the pipeline for the model counts, and much


def image(mib):
    """The name of the image of that size on the server; `bench/run` made it."""
    return f"image-{mib}.bin"


def verify(runs):
    """MB/s of `test` beside the CRC alone, over the same file, and with the question for the model."""
    rows = []
    with router.daemon():
        for mib in SIZES:
            path = pathlib.Path("/tmp") / image(mib)
            path.write_bytes((router.SERVER_ROOT / image(mib)).read_bytes())
            router.expect(router.call("test", file=str(path)), "check_code", "0")

            def ours(path=path):
                return float(router.run(router.TOOLS / "call_time", "fwupdate", "test", "file",
                                        path))

            def reader(how, path=path):
                return float(router.run(router.TOOLS / "read_file", how, path).split()[0])

            got = interleave(runs, {"ours": ours, "crc": lambda: reader("crc"),
                                    "crc and model": lambda: reader("model")})
            speed = {name: [(mib * MIB - 64) / 1e6 / seconds for seconds in samples]
                     for name, samples in got.items()}
            rows += [Row(f"`test`, {mib} MiB", "MB/s", speed["ours"], speed["crc"], "CRC alone", ">= 0.97"),
                     Row(f"`test`, {mib} MiB", "MB/s", speed["ours"], speed["crc and model"],
                         "CRC and the one pipeline for the model")]
            path.unlink()
    return rows


def await_installer(count):
    """Waits until sysupgrade has been called `count` times."""
    end = time.monotonic() + router.LONGEST
    while time.monotonic() < end:
        if INSTALLED.exists() and INSTALLED.read_text().count("command: ") >= count:
            return
        time.sleep(0.05)
    raise RuntimeError("the installer was not called")


def update(runs):
    """A whole update of 24 MiB: request to answer. The installer's two seconds of grace come
    after the answer and are nobody's work; the script's end stands where the answer stands. A
    daemon lives for one update, as on a router: its first one reads the boot environment."""
    calls = 0

    def ours():
        nonlocal calls
        with router.daemon():
            started = time.monotonic()
            answer = router.call("update", force="1", timeout=100)
            seconds = time.monotonic() - started
            router.expect(answer, "error_code", "0")
            calls += 1
            await_installer(calls)
        return 1000 * seconds

    def script():
        seconds = router.timed("/bin/sh", UPDATE_SCRIPT, f"http://192.0.2.1/{image(24)}",
                               router.TOOLS / "read_file")
        return 1000 * seconds

    got = interleave(runs, {"ours": ours, "script": script})
    return [Row("update, 24 MiB", "ms", got["ours"], got["script"],
                "script with the same tools, curl and a CRC", "<= 1.05")]
