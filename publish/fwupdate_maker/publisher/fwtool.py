# SPDX-License-Identifier: ISC
"""Metadata and signatures at the end of an image, as the router's fwtool finds them.

    image | chunk | chunk | ...
    chunk = [8-byte header, metadata only] data, 16-byte trailer

A trailer is magic, CRC, type and size, big-endian; its CRC covers all bytes before it.
"""
from __future__ import annotations

import dataclasses
import json
import struct
import zlib
from typing import Any, BinaryIO, Iterable

from ..refusal import Refusal

MAGIC = 0x46577830  # "FWx0"
TRAILER = struct.Struct(">IIB3xI")
HEADER_SIZE = 8
SIGNATURE, METADATA = 0, 1
SIZE_LIMIT = 32 * 1024 + TRAILER.size
DEPTH_LIMIT = 32  # values within values; the router's JSON reader gives up beyond
BUILD_MEMBER = "fwupdate_build"
REMEDY = "Build the image again, or append metadata with 'fwtool -I META.json IMAGE'."


class NoMetadata(Refusal):
    """The image is whole as far as fwtool can tell, but carries no metadata."""


@dataclasses.dataclass(frozen=True)
class Chunk:
    kind: int
    start: int  # everything before it is what its signature would sign
    data: bytes  # without the header of a metadata chunk


def crc_without_inversion(data: Any, crc: int) -> int:
    return zlib.crc32(data, crc ^ 0xFFFFFFFF) ^ 0xFFFFFFFF


def last_chunks(image: Any) -> list[Chunk]:
    """The chunks from the last one to the last metadata, or to where they end. Raises
    ValueError with the reason when fwtool would refuse the file."""
    chunks: list[Chunk] = []
    trailers = []
    end = len(image)
    while end > TRAILER.size and (not chunks or chunks[-1].kind != METADATA):
        position = end - TRAILER.size
        magic, crc, kind, size = TRAILER.unpack(image[position:end])
        if magic != MAGIC:
            break
        trailers.append((position, crc))
        least = TRAILER.size + (HEADER_SIZE if kind == METADATA else 0)
        if not least <= size <= SIZE_LIMIT or size >= end:
            raise ValueError(f"its fwtool trailer gives the size {size}")
        end -= size
        if kind != METADATA:
            chunks.append(Chunk(kind, end, bytes(image[end:position])))
        elif image[end:end + 4] == bytes(4):
            chunks.append(Chunk(kind, end, bytes(image[end + HEADER_SIZE:position])))
    check_crcs(image, trailers)
    return chunks


def check_crcs(image: Any, trailers: Iterable[tuple[int, int]]) -> None:
    crc, done = 0xFFFFFFFF, 0
    for position, wanted in reversed(list(trailers)):
        crc = crc_without_inversion(image[done:position], crc)
        done = position
        if crc != wanted:
            raise ValueError("the CRC of its fwtool trailer is wrong")


def checked_chunks(name: str, image: Any) -> list[Chunk]:
    try:
        return last_chunks(image)
    except ValueError as error:
        raise Refusal(f"image '{name}': {error}; it is damaged.", REMEDY) from None


def metadata_chunk(name: str, image: Any) -> Chunk:
    for chunk in checked_chunks(name, image):
        if chunk.kind == METADATA:
            return chunk
    raise NoMetadata(f"image '{name}': it carries no fwtool metadata.", REMEDY)


def read_metadata(name: str, image: Any) -> dict[str, Any]:
    """The metadata as a dictionary. Refuses an image without any, and a damaged one."""
    data = metadata_chunk(name, image).data
    try:
        metadata = json.loads(data.decode())
    except (UnicodeDecodeError, json.JSONDecodeError) as error:
        raise Refusal(f"image '{name}': its metadata are no JSON ({error}).", REMEDY) from None
    except RecursionError:
        metadata = [[]] * DEPTH_LIMIT
        for _ in range(DEPTH_LIMIT):
            metadata = [metadata]
    if depth(metadata, DEPTH_LIMIT + 1) > DEPTH_LIMIT:
        raise Refusal(f"image '{name}': its metadata hold more than {DEPTH_LIMIT} values within values;"
                      " a router reads none of them.", "Make the metadata flatter.")
    if not isinstance(metadata, dict):
        raise Refusal(f"image '{name}': its metadata are no JSON object.", REMEDY)
    return metadata


def depth(value: Any, limit: int) -> int:
    """How many values stand within each other; it stops counting at `limit`."""
    if limit <= 1:
        return 1
    inner = value.values() if isinstance(value, dict) else value if isinstance(value, list) else ()
    return 1 + max((depth(part, limit - 1) for part in inner), default=0)


def signature(name: str, image: Any) -> Chunk | None:
    """The signature that the guard of a router looks at: the last chunk, when it is one."""
    chunks = checked_chunks(name, image)
    return chunks[0] if chunks and chunks[0].kind == SIGNATURE else None


class Writer:
    """Copies an image and appends chunks; keeps the CRC that each trailer needs."""

    def __init__(self, target: BinaryIO) -> None:
        self.target = target
        self.crc = 0xFFFFFFFF

    def write(self, data: bytes) -> int:
        self.crc = crc_without_inversion(data, self.crc)
        return self.target.write(data)

    def append(self, kind: int, data: bytes) -> None:
        body = (bytes(HEADER_SIZE) if kind == METADATA else b"") + data
        self.write(body)
        self.write(TRAILER.pack(MAGIC, self.crc, kind, len(body) + TRAILER.size))


def copy_with_metadata(source: BinaryIO, length: int, metadata: dict[str, Any], target: BinaryIO) -> Writer:
    """Copies the first `length` bytes and appends the metadata."""
    writer = Writer(target)
    left = length
    while left and (piece := source.read(min(left, 1 << 20))):
        writer.write(piece)
        left -= len(piece)
    writer.append(METADATA, json.dumps(metadata).encode())
    return writer
