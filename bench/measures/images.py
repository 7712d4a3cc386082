# SPDX-License-Identifier: ISC
"""Download, image check and a whole update, by size."""
import pathlib
import subprocess
import time

from measures import router
from measures.samples import Row, interleave

MIB = 1024 * 1024
TARGET = pathlib.Path("/tmp/fwupdate.bin")
UPDATE_SCRIPT = pathlib.Path(__file__).parent.parent / "update.sh"
INSTALLED = pathlib.Path("/var/log/sysupgrade")
SIZES = (4, 16, 64, 256)


def image(mib):
    """The name of the image of that size on the server; `bench/run` made it."""
    return f"image-{mib}.bin"


def download(runs):
    """MB/s of the worker beside those of curl: of its transfer alone, by its own clock, and of the
    whole command, which begins by loading its libraries."""
    rows = []
    for mib in SIZES:
        url = f"http://192.0.2.1/{image(mib)}"

        def ours(url=url):
            seconds, resident = router.run(router.TOOLS / "download_time", url, TARGET).split()
            TARGET.unlink()
            return float(seconds), int(resident)

        def curl(url=url):
            started = time.monotonic()
            transfer = router.run("/host/usr/bin/curl", "-s", "-f", "-w", "%{time_total}", "-o",
                                  TARGET, url)
            whole = time.monotonic() - started
            TARGET.unlink()
            return float(transfer), whole

        got = interleave(runs, {"ours": ours, "curl": curl})
        speed = [mib * MIB / 1e6 / seconds for seconds, _ in got["ours"]]
        rows.append(Row(f"download, {mib} MiB", "MB/s", speed,
                        [mib * MIB / 1e6 / transfer for transfer, _ in got["curl"]],
                        "curl's transfer alone", ">= 0.97", x=mib, series="download"))
        rows.append(Row(f"download, {mib} MiB", "MB/s", speed,
                        [mib * MIB / 1e6 / whole for _, whole in got["curl"]],
                        "the whole curl command"))
        rows.append(worker_memory(mib, [resident for _, resident in got["ours"]], rows))
    return rows


def worker_memory(mib, resident, rows):
    """The worker's most memory, beside that with the smallest image: it is not to grow."""
    smallest = next((row.ours for row in rows if row.series == "worker memory"), [])
    return Row(f"download, {mib} MiB: most memory of the worker", "KiB", resident, smallest,
               f"with {SIZES[0]} MiB" if smallest else "", "<= 1.02" if smallest else "", x=mib,
               series="worker memory")


def verify(runs):
    """MB/s of `test` beside the CRC alone and reading alone, over the same file."""
    rows = []
    with router.daemon():
        for mib in (1, *SIZES):
            path = pathlib.Path("/tmp") / image(mib)
            path.write_bytes((router.SERVER_ROOT / image(mib)).read_bytes())
            router.expect(router.call("test", file=str(path)), "check_code", "0")

            def ours(path=path):
                return float(router.run(router.TOOLS / "call_time", "fwupdate", "test", "file",
                                        path))

            def reader(how, path=path):
                return float(router.run(router.TOOLS / "read_file", how, path).split()[0])

            got = interleave(runs, {"ours": ours, "crc": lambda: reader("crc"),
                                    "crc and model": lambda: reader("model"),
                                    "touch": lambda: reader("touch")})
            speed = {name: [(mib * MIB - 64) / 1e6 / seconds for seconds in samples]
                     for name, samples in got.items()}
            rows.append(Row(f"`test`, {mib} MiB", "MB/s", speed["ours"], speed["crc"],
                            "CRC alone", ">= 0.97", x=mib, series="verify"))
            rows.append(Row(f"`test`, {mib} MiB", "MB/s", speed["ours"], speed["crc and model"],
                            "CRC and the one pipeline for the model"))
            rows.append(Row(f"`test`, {mib} MiB", "MB/s", speed["ours"], speed["touch"],
                            "reading alone"))
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
