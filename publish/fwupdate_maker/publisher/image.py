# SPDX-License-Identifier: ISC
"""Would a router accept this file, and which model is it made for?

The same decisions as the daemon's image check. Where a boot loader would refuse what
the daemon lets pass, the boot loader decides: an image that does not boot is no use.
"""
from __future__ import annotations

import contextlib
import dataclasses
import mmap
import os
import re
import struct
import zlib
from typing import Any, Iterator

from ..refusal import Refusal
from . import fwtool


UIMAGE_MAGIC = 0x27051956
HEADER = struct.Struct(">IIIIIIIBBBB32s")
MODEL_LIMIT = 31  # bytes; the custom ID and its brackets count
CUSTOMID_LIMIT = 7
SIZE_LIMIT = 0xFFFFFFFF  # routers count the bytes of a download with 32 bits

REBUILD = "Build the image again; a copy that was cut or changed does not get well."


@dataclasses.dataclass(frozen=True)
class UimageHeader:
    magic: int
    header_crc: int
    time: int
    size: int
    load: int
    entry: int
    data_crc: int
    system: int
    architecture: int
    kind: int
    compression: int
    name: bytes

    @classmethod
    def of(cls, image: Any) -> UimageHeader:
        return cls(*HEADER.unpack(bytes(image[:HEADER.size]).ljust(HEADER.size, b"\0")))

    def vouched_by_fwtool(self) -> bool:
        """The rule that sends a router to fwtool instead of the data CRC."""
        return self.load == self.entry and self.name[28:] == bytes(4)


def check_image(path: str, model: str | None = None, partition_size: int | None = None) -> str:
    """Returns the model that the file is made for. `model` is what it should be."""
    check_size(path, os.stat(path).st_size, partition_size)
    with mapped(path) as image:
        found = checked_model(path, image)
    check_model(path, found, model)
    return found


@contextlib.contextmanager
def mapped(path: str | os.PathLike[str]) -> Iterator[mmap.mmap]:
    """The bytes of a file that is not empty."""
    with open(path, "rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as image:
        yield image


def checked_model(path: str, image: Any) -> str:
    header = UimageHeader.of(image)
    if header.magic != UIMAGE_MAGIC:
        return metadata_model(path, image)
    with memoryview(image) as view:
        check_uimage(path, view, header)
    return uimage_model(path, header)


def check_size(path: str, size: int, partition_size: int | None) -> None:
    if size == 0:
        raise Refusal(f"image '{path}': it is empty.", REBUILD)
    if size > SIZE_LIMIT:
        raise Refusal(f"image '{path}': it has {size} bytes; routers count to {SIZE_LIMIT}.",
                      "Make the image smaller.")
    if partition_size is not None and size > partition_size:
        raise Refusal(f"image '{path}': it has {size} bytes, the flash partition {partition_size}.",
                      "Make the image smaller, or give the right --partition-size: the size that"
                      " /proc/mtd shows for the partition that it goes to, which is hexadecimal:"
                      " write 0x in front of it.")


def check_uimage(path: str, image: memoryview, header: UimageHeader) -> None:
    if len(image) < HEADER.size:
        raise Refusal(f"image '{path}': it ends within its U-Boot header.", REBUILD)
    blank = HEADER.pack(header.magic, 0, *dataclasses.astuple(header)[2:])
    if zlib.crc32(blank) != header.header_crc:
        raise Refusal(f"image '{path}': the CRC of its U-Boot header is wrong.", REBUILD)
    rest = len(image) - HEADER.size
    whole = zlib.crc32(image[HEADER.size:])
    if header.size != rest and whole == header.data_crc:
        raise Refusal(f"image '{path}': its U-Boot header announces {header.size} bytes of data, but its"
                      f" checksum is that of all {rest} that follow. Routers take it, as they do not read the"
                      " size; a boot loader does, and would not start it.",
                      "Build the image again, with the size that it has.")
    if header.size > rest:
        raise Refusal(f"image '{path}': its U-Boot header announces {header.size} bytes of data,"
                      f" {rest} follow.", REBUILD)
    if zlib.crc32(image[HEADER.size:HEADER.size + header.size]) != header.data_crc:
        raise Refusal(f"image '{path}': the CRC of its data is wrong.", REBUILD)
    if header.vouched_by_fwtool():
        check_vouched(path, image)
    elif whole != header.data_crc:
        raise Refusal(
            f"image '{path}': {rest - header.size} bytes follow the data that its U-Boot header"
            " announces. Routers take the data CRC over all that follows the header, so it"
            " is wrong for them.",
            "Build it with nothing behind the data; or with equal load and entry addresses, a"
            " name of at most 28 bytes and fwtool metadata: then these count instead.")


def check_vouched(path: str, image: memoryview) -> None:
    try:
        fwtool.read_metadata(path, image)
    except fwtool.NoMetadata:
        raise Refusal(f"image '{path}': its load and entry address are equal, so a router asks fwtool"
                      " instead of the data checksum, and it has no metadata.",
                      "Give mkimage -a and -e that differ, or append metadata with 'fwtool -I META.json"
                      " IMAGE'.") from None


def uimage_model(path: str, header: UimageHeader) -> str:
    """The header's name, without a custom ID in brackets."""
    name = header.name.split(b"\0")[0]
    if len(name) > MODEL_LIMIT:
        raise Refusal(f"image '{path}': the name in its U-Boot header has {len(name)} bytes; routers"
                      f" compare {MODEL_LIMIT}.", "Give mkimage -n the model alone.")
    if b"[" in name and b"]" in name:
        name = name.split(b"[")[0]
    if not re.fullmatch(rb"[ -~]+", name):
        raise Refusal(f"image '{path}': the name in its U-Boot header is no model name"
                      f" ({name!r}).", "Give mkimage -n the product name of the router.")
    return name.decode()


def metadata_model(path: str, image: Any) -> str:
    """The one supported device of the metadata."""
    try:
        metadata = fwtool.read_metadata(path, image)
    except Refusal as refusal:
        if bytes(image[:2]) == b"PK":
            raise Refusal(f"image '{path}': it is a ZIP archive, which routers download but do"
                          " not unpack.", "Publish the image in it.") from None
        if not isinstance(refusal, fwtool.NoMetadata):
            raise
        raise Refusal(f"image '{path}': it is neither a U-Boot image nor carries fwtool"
                      " metadata, and routers take nothing else.",
                      "Make it with mkimage, or append metadata with 'fwtool -I META.json"
                      " IMAGE'.") from None
    model = one_device(path, metadata.get("supported_devices"))
    check_customid(path, model, metadata.get("version"))
    return model


def one_device(path: str, devices: Any) -> str:
    remedy = ('Write one name, for example "supported_devices": ["MODEL-X"], and make one image'
              " for each model.")
    if isinstance(devices, str):
        devices = [devices]
    if not isinstance(devices, list) or not devices:
        raise Refusal(f"image '{path}': its metadata name no supported device.", remedy)
    if len(devices) > 1:
        raise Refusal(f"image '{path}': its metadata name {len(devices)} supported devices. Routers"
                      " compare the whole list with their own name, so none of them takes it.",
                      remedy)
    model = devices[0]
    if not isinstance(model, str) or model == "":
        raise Refusal(f"image '{path}': its supported device is no text.", remedy)
    # What a router drops from the list, or reads escaped.
    bad = re.search(r'[^!-~]|["\\/\[\]]', model)
    if bad:
        raise Refusal(f"image '{path}': the supported device '{model}' holds {bad.group()!r}, which"
                      " a router drops or reads as something else.", remedy)
    if len(model) > MODEL_LIMIT:
        raise Refusal(f"image '{path}': the supported device '{model}' has {len(model)} characters;"
                      f" a router keeps {MODEL_LIMIT}.", remedy)
    return model


def check_customid(path: str, model: str, version: Any) -> None:
    customid = version.get("customid") if isinstance(version, dict) else None
    if customid is None:
        return
    text = str(customid)
    if isinstance(customid, bool) or not isinstance(customid, (str, int)) or re.search(
            r'[^!-~]|["\\/]', text):
        raise Refusal(f"image '{path}': its custom ID {customid!r} is no plain text or number.",
                      'Write "customid": "77", or leave it out.')
    if len(text) > CUSTOMID_LIMIT:
        raise Refusal(f"image '{path}': its custom ID '{text}' has {len(text)} characters; a router"
                      f" keeps {CUSTOMID_LIMIT}.", "Shorten it, or leave it out.")
    if text and len(text) + 2 + len(model) > MODEL_LIMIT:
        raise Refusal(f"image '{path}': '{model}[{text}]' has {len(text) + 2 + len(model)} characters;"
                      f" a router refuses more than {MODEL_LIMIT}.",
                      "Shorten the custom ID, or leave it out.")


def check_model(path: str, found: str, wanted: str | None) -> None:
    if wanted is not None and found.upper() != wanted.upper():
        raise Refusal(f"image '{path}': it is made for the model '{found}', not for '{wanted}'.",
                      "Give the image of that model; the model is the product name that 'ubus call"
                      " system board' shows on the router.")
