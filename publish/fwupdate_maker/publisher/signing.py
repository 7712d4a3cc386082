# SPDX-License-Identifier: ISC
"""Signs and checks images with usign or signify, whichever is there. Both read each
other's keys and signatures:

    two lines: a comment, then base64 of "Ed", an 8-byte key number, key or signature

An image's signature is a file of that format in an fwtool chunk of its own, over every
byte before it. The metadata among these bytes name the build, so that last year's image
cannot be offered as a new one.
"""
from __future__ import annotations

import base64
import binascii
import contextlib
import pathlib
import shutil
import subprocess
import tempfile
from typing import Any, BinaryIO, Iterator

from ..refusal import Refusal, one_line
from . import fwtool

PUBLIC_SIZE = 2 + 8 + 32
SIGNATURE_SIZE = 2 + 8 + 64
KEYS_FOLDER = "/etc/fwupdate/keys"


def tool() -> str:
    for name in ("usign", "signify-openbsd", "signify"):
        if shutil.which(name) is not None:
            return name
    raise Refusal("signing: neither usign nor signify is installed.",
                  "Install one; on Debian the package is signify-openbsd.")


def call(*words: str) -> None:
    """Runs the tool. It may ask for a key's passphrase, on the terminal."""
    result = subprocess.run([tool(), *words], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                            errors="replace", check=False)
    if result.returncode != 0:
        said = one_line(result.stderr.strip()) or f"status {result.returncode}"
        raise Refusal(f"signing: {tool()} {words[0]} failed ({said}).", "Give a key that was made by 'keys make'.")


def number(text: bytes, size: int) -> str | None:
    """The key's number as the routers' file names have it: 16 hexadecimal digits."""
    lines = text.split(b"\n")
    try:
        data = base64.b64decode(lines[1], validate=True)
    except (IndexError, binascii.Error):
        return None
    return data[2:10].hex() if len(data) == size and data[:2] == b"Ed" else None


def public_key_number(path: str) -> str:
    try:
        found = number(pathlib.Path(path).read_bytes(), PUBLIC_SIZE)
    except OSError as error:
        raise Refusal(f"--key '{path}': {error.strerror}.", "Name the file with the public key.") from None
    if found is None:
        raise Refusal(f"--key '{path}': it is no public key.", "Name the .pub file that 'keys make' wrote.")
    return found


def check_secret_key(path: str) -> None:
    try:
        with open(path, "rb") as file:
            text = file.read(4096)
    except OSError as error:
        raise Refusal(f"--sign '{path}': {error.strerror}.", "Name the file with the secret key.") from None
    if b"\n" not in text or number(text, PUBLIC_SIZE) is not None:
        raise Refusal(f"--sign '{path}': it is no secret key.", "Name the .sec file that 'keys make' wrote.")


def make_keys(name: str) -> str:
    """Makes NAME.sec and NAME.pub; returns the key's number."""
    secret, public = f"{name}.sec", f"{name}.pub"
    for path in (secret, public):
        if pathlib.Path(path).exists():
            raise Refusal(f"keys '{path}': it is there already, and a key that is lost cannot be made again.",
                          "Give another name.")
    # Without a passphrase: usign knows none.
    more = ("-n",) if tool() != "usign" else ()
    call("-G", *more, "-s", secret, "-p", public)
    pathlib.Path(secret).chmod(0o600)
    return public_key_number(public)


def build_of(image: Any, name: str) -> str | None:
    """The build that the image's metadata name."""
    try:
        value = fwtool.read_metadata(name, image).get(fwtool.BUILD_MEMBER)
    except fwtool.NoMetadata:
        return None
    return None if value is None else str(value)


def check_can_carry(name: str, image: Any) -> None:
    """Refuses an image that has no place for a signature."""
    try:
        fwtool.metadata_chunk(name, image)
    except fwtool.NoMetadata:
        raise Refusal(f"image '{name}': it cannot carry a signature. A plain U-Boot image has nowhere to put it:"
                      " its data checksum covers whatever follows.",
                      "Build an image with fwtool metadata: docs/firmware-images.md shows how.") from None


def write_signed(name: str, image: Any, source: BinaryIO, target: BinaryIO, key: str, build: str) -> None:
    """Writes the image with the build in its metadata and a signature of `key` at its end.
    `image` are the bytes of `source`; a signature and metadata that it has are replaced."""
    check_can_carry(name, image)
    metadata = {**fwtool.read_metadata(name, image), fwtool.BUILD_MEMBER: build}
    writer = fwtool.copy_with_metadata(source, fwtool.metadata_chunk(name, image).start, metadata, target)
    target.flush()
    with temporary_folder() as folder:
        call("-S", "-m", str(target.name), "-s", key, "-x", str(folder / "sig"))
        writer.append(fwtool.SIGNATURE, (folder / "sig").read_bytes())


def signed_by(name: str, image: Any, key: str | None) -> str | None:
    """The number of the key that signed the image, None without a signature of this kind.
    With `key`, a public key's file, it is a Refusal unless that key made it."""
    chunk = fwtool.signature(name, image)
    found = None if chunk is None else number(chunk.data, SIGNATURE_SIZE)
    if key is None:
        return found
    if chunk is None or found is None:
        raise Refusal(f"image '{name}': it is not signed.", "Sign it with --sign, or leave --key out.")
    wanted = public_key_number(key)
    with temporary_folder() as folder:
        (folder / "sig").write_bytes(chunk.data)
        with open(folder / "image", "wb") as file:
            file.write(image[:chunk.start])
        try:
            call("-V", "-m", str(folder / "image"), "-p", key, "-x", str(folder / "sig"))
        except Refusal:
            raise Refusal(f"image '{name}': its signature is not by the key {wanted} ('{key}').",
                          "Sign it with the secret half of that key, or give the right --key.") from None
    return found


@contextlib.contextmanager
def temporary_folder() -> Iterator[pathlib.Path]:
    with tempfile.TemporaryDirectory(prefix="fwupdate-sign.") as folder:
        yield pathlib.Path(folder)
