# SPDX-License-Identifier: ISC
"""Metadata at the end of an image, as the router's fwtool finds it.

    image | chunk | chunk | ...
    chunk = [8-byte header, metadata only] data, 16-byte trailer

A trailer is magic, CRC, type and size, big-endian; its CRC covers all bytes before it.
"""
import json
import struct
import zlib

from .refusal import Refusal

MAGIC = 0x46577830  # "FWx0"
TRAILER = struct.Struct(">IIB3xI")
HEADER_SIZE = 8
SIGNATURE, METADATA = 0, 1
SIZE_LIMIT = 32 * 1024 + TRAILER.size


class NoMetadata(Refusal):
    """The image is whole as far as fwtool can tell, but carries no metadata."""


def crc_without_inversion(data, crc):
    return zlib.crc32(data, crc ^ 0xFFFFFFFF) ^ 0xFFFFFFFF


def find_metadata(image):
    """The bytes of the last metadata chunk, or None when there is none. Raises
    ValueError with the reason when fwtool would refuse the file."""
    trailers = []
    end = len(image)
    found = None
    while found is None and end > TRAILER.size:
        position = end - TRAILER.size
        magic, crc, kind, size = TRAILER.unpack(image[position:end])
        if magic != MAGIC:
            break
        trailers.append((position, crc))
        least = TRAILER.size + (HEADER_SIZE if kind == METADATA else 0)
        if not least <= size <= SIZE_LIMIT or size >= end:
            raise ValueError(f"its fwtool trailer gives the size {size}")
        start = end - size
        if kind == METADATA and image[start:start + 4] == bytes(4):
            found = bytes(image[start + HEADER_SIZE:position])
        end = start
    check_crcs(image, trailers)
    return found


def check_crcs(image, trailers):
    crc, done = 0xFFFFFFFF, 0
    for position, wanted in reversed(trailers):
        crc = crc_without_inversion(image[done:position], crc)
        done = position
        if crc != wanted:
            raise ValueError("the CRC of its fwtool trailer is wrong")


def read_metadata(name, image):
    """The metadata as a dictionary. Refuses an image without any, and a damaged one."""
    remedy = "Build the image again, or append metadata with 'fwtool -I META.json IMAGE'."
    try:
        data = find_metadata(image)
    except ValueError as error:
        raise Refusal(f"image '{name}': {error}; it is damaged.", remedy) from None
    if data is None:
        raise NoMetadata(f"image '{name}': it carries no fwtool metadata.", remedy)
    try:
        metadata = json.loads(data.decode())
    except (UnicodeDecodeError, json.JSONDecodeError, RecursionError) as error:
        raise Refusal(f"image '{name}': its metadata are no JSON ({error}).", remedy) from None
    if not isinstance(metadata, dict):
        raise Refusal(f"image '{name}': its metadata are no JSON object.", remedy)
    return metadata
