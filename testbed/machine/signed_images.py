#!/usr/bin/python3 -B
# SPDX-License-Identifier: ISC
"""Images with metadata and signatures, and keys to sign them, as a router's maker makes them.
Chunks are built here byte by byte, so that tests may build wrong ones. As a program:

    signed_images.py FOLDER IMAGE BUILD REVISION

gives the image metadata, and the signature of the key "maker" in FOLDER, made when missing. Only
with FOLDER it prints the fingerprint of that key."""
import base64
import json
import pathlib
import struct
import subprocess
import sys
import zlib

SIGNATURE, METADATA = 0, 1
SIGNIFY = "signify-openbsd"


class Key:
    """A pair of files; `fingerprint` is the name of the public one on a router."""

    def __init__(self, folder, name):
        self.public, self.secret = folder / f"{name}.pub", folder / f"{name}.sec"
        if not self.secret.exists():
            subprocess.run([SIGNIFY, "-G", "-n", "-p", self.public, "-s", self.secret], check=True)
        self.fingerprint = base64.b64decode(self.public.read_text().splitlines()[1])[2:10].hex()

    def sign(self, data):
        """The signature file over these bytes."""
        message, signature = self.secret.with_suffix(".message"), self.secret.with_suffix(".sig")
        message.write_bytes(data)
        subprocess.run([SIGNIFY, "-S", "-s", self.secret, "-m", message, "-x", signature], check=True)
        message.unlink()
        return signature.read_bytes()


def crc(data):
    return zlib.crc32(data) ^ 0xFFFFFFFF


def chunk(image, kind, data, size=None, checksum=None):
    """What is appended to the image so that it carries the data."""
    if kind == METADATA:
        data = bytes(8) + data
    checksum = crc(image + data) if checksum is None else checksum
    return data + struct.pack(">IIB3xI", 0x46577830, checksum, kind, len(data) + 16 if size is None else size)


def metadata(build="174200000", revision="r1300", model="MODEL-X", **more):
    content = {"metadata_version": "1.1", "compat_version": "1.0", "supported_devices": [model],
               "version": {"dist": "RouterOS", "version": "24.10", "revision": revision,
                           "target": "arm/generic", "board": "model-x"}, **more}
    if build is not None:
        content["fwupdate_build"] = build
    return json.dumps(content).encode()


def with_metadata(body, **fields):
    return body + chunk(body, METADATA, metadata(**fields))


def signed(image, key):
    return image + chunk(image, SIGNATURE, key.sign(image))


def uimage(payload, name=b"MODEL-X"):
    """A U-Boot image that may carry metadata: load address and entry point are the same."""
    head = struct.pack(">7I4B32s", 0x27051956, 0, 0, len(payload), 0x80008000, 0x80008000,
                       zlib.crc32(payload), 5, 2, 2, 0, name)
    return head[:4] + struct.pack(">I", zlib.crc32(head)) + head[8:] + payload


def main():
    key = Key(pathlib.Path(sys.argv[1]), "maker")
    if len(sys.argv) == 2:
        print(key.fingerprint)
        return
    image, build, revision = pathlib.Path(sys.argv[2]), *sys.argv[3:]
    image.write_bytes(signed(with_metadata(image.read_bytes(), build=build, revision=revision), key))


if __name__ == "__main__":
    main()
