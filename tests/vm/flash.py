# SPDX-License-Identifier: ISC
"""The router's flash file, looked at and written from outside."""
import pathlib
import shutil
import struct
import subprocess
import time
import zlib

ENVIRONMENT = 0x80000
ENVIRONMENT_SIZE = 0x10000
ENVIRONMENT_PLACES = pathlib.Path(__file__).parents[2] / "testbed/machine/rootfs/etc/fw_env.config"
PARTITIONS = {"firmware": 0x90000, "firmware2": 0x1890000}
PARTITION_SIZE = 0x1800000
HEADER = ">7I4B32s"  # of a U-Boot image; the second word is its own checksum


def content(flash, partition, size=PARTITION_SIZE):
    with open(flash, "rb") as file:
        file.seek(PARTITIONS[partition])
        return file.read(size)


def environment_part(flash):
    with open(flash, "rb") as file:
        file.seek(ENVIRONMENT)
        return file.read(ENVIRONMENT_SIZE)


COPIES = [line.split()[1:3] for line in ENVIRONMENT_PLACES.read_text().splitlines() if line[0] != "#"]


def _environment_tool(name, part, folder, *arguments):
    """Runs it on the copies that the router's own file names; they are in the file `part` then."""
    (folder / "part").write_bytes(part)
    (folder / "fw_env.config").write_text(
        "".join(f"{folder}/part {place} {size}\n" for place, size in COPIES), encoding="utf-8")
    return subprocess.run([name, "-c", folder / "fw_env.config", *arguments],
                          capture_output=True, text=True, check=False)


def read_environment(part, folder):
    """The variables, as the real tool finds them in the two copies; None when it finds none."""
    tool = _environment_tool("fw_printenv", part, folder)
    if tool.returncode != 0:
        return None
    return dict(line.split("=", 1) for line in tool.stdout.splitlines())


def set_variable(flash, folder, *name_and_value):
    """As the real tool does it: a name without a value removes the variable. In a file it counts the
    copies; on flash the byte behind the checksum is 1 in the copy that holds, and 0 in the other."""
    tool = _environment_tool("fw_setenv", environment_part(flash), folder, *name_and_value)
    assert tool.returncode == 0, tool.stderr
    part = bytearray((folder / "part").read_bytes())
    marks = [int(place, 0) + 4 for place, _ in COPIES]
    newest = max(marks, key=lambda mark: part[mark])
    for mark in marks:
        part[mark] = mark == newest
    write(flash, ENVIRONMENT, part)


def write(flash, place, data):
    with open(flash, "r+b") as file:
        file.seek(place)
        file.write(data)


def wait_until(condition, what, timeout=400):
    end = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < end, f"{timeout} s are over: {what}"
        time.sleep(0.001)


def enlarge(image, size, target):
    """The same firmware with so much behind its file system that it has `size` bytes."""
    data = bytearray(pathlib.Path(image).read_bytes())
    data += bytes(range(256)) * ((size - len(data)) // 256 + 1)
    data = data[:size]
    fields = list(struct.unpack(HEADER, data[:64]))
    fields[1], fields[3], fields[6] = 0, size - 64, zlib.crc32(data[64:])
    fields[1] = zlib.crc32(struct.pack(HEADER, *fields))
    data[:64] = struct.pack(HEADER, *fields)
    target.write_bytes(data)
    return target


def damage(image, target):
    """The same firmware with one bit of its data changed."""
    shutil.copyfile(image, target)
    data = bytearray(target.read_bytes())
    data[len(data) * 3 // 4] ^= 1
    target.write_bytes(data)
    return target


def logged_writes(log):
    """(offset, data) of each write that the emulator's write log holds, in order. The
    log: a sector about itself, then for each write a sector of numbers and its data."""
    sector = 512
    with open(log, "rb") as file:
        magic, _, _, size = struct.unpack("<QQQI", file.read(sector)[:28])
        assert (magic, size) == (0x6A736677736872, sector)
        while len(head := file.read(sector)) == sector:
            place, count, flags, _ = struct.unpack("<4Q", head[:32])
            data = file.read(count * sector)
            if count and not flags:
                yield place * sector, data
