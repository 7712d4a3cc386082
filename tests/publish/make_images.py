# SPDX-License-Identifier: ISC
"""Firmware images for the tests, good and bad, made from their format alone."""
import json
import struct
import zlib

UIMAGE = struct.Struct(">IIIIIIIBBBB32s")


def uimage(payload, name=b"MODEL-X", load=0x80008000, entry=0x80008040, size=None, data_crc=None,
           header_crc=None, magic=0x27051956):
    """A U-Boot legacy image; what is not given is right."""
    fields = [magic, 0, 0, len(payload) if size is None else size, load, entry,
              zlib.crc32(payload) if data_crc is None else data_crc, 5, 2, 2, 0, name]
    fields[1] = zlib.crc32(UIMAGE.pack(*fields)) if header_crc is None else header_crc
    return UIMAGE.pack(*fields) + payload


def chunk(image, data, kind=1, crc=None, size=None):
    """The image with one more fwtool chunk: metadata (1) or a signature (0)."""
    body = (bytes(8) if kind == 1 else b"") + data
    if crc is None:
        crc = zlib.crc32(image + body) ^ 0xFFFFFFFF
    total = len(body) + 16 if size is None else size
    return image + body + struct.pack(">IIB3xI", 0x46577830, crc, kind, total)


def with_metadata(image, devices=("MODEL-X",), customid=None, **extra):
    version = {"dist": "RouterOS"}
    if customid is not None:
        version["customid"] = customid
    metadata = {"metadata_version": "1.1", "supported_devices": devices, "version": version, **extra}
    return chunk(image, json.dumps(metadata).encode())
