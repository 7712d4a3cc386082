# SPDX-License-Identifier: ISC
"""The files that the command line names: the image and the release notes."""
from __future__ import annotations

import os
import sys

from ..refusal import Refusal
from . import manifest as manifests
from .image import check_image

NOTES_READ = 65536  # far more than routers keep; what is longer is no notes


def check_image_file(image: str, model: str | None, partition_size: int | None) -> None:
    remedy = "Name the firmware image."
    check_there("image", image, remedy)
    if not os.path.isfile(image):
        raise Refusal(f"image '{image}': it is no plain file.", remedy)
    try:
        check_image(image, model, partition_size)
    except OSError as error:
        raise Refusal(f"image '{image}': {error.strerror}.", "Make it readable for you.") from None


def check_there(what: str, name: str, remedy: str) -> None:
    if name == "":
        raise Refusal(f"{what} '': it names no file.", remedy)
    if os.path.isdir(name):
        raise Refusal(f"{what} '{name}': it is a folder.", remedy)
    if not os.path.exists(name):
        raise Refusal(f"{what} '{name}': there is no such file.", remedy)


def read_notes(name: str | None) -> str:
    """The file's text without the line end at its end; "" is kept, to be refused."""
    if name is None:
        return manifests.NO_NOTES
    data = notes_bytes(name)
    if len(data) > NOTES_READ:
        raise Refusal(f"notes '{name}': it has more than {NOTES_READ} bytes; a router keeps"
                      f" {manifests.NOTES_LIMIT}.", "Name a text file with the release notes.")
    try:
        return data.decode().replace("\r\n", "\n").rstrip("\n")
    except UnicodeDecodeError as error:
        raise Refusal(f"notes '{name}': byte {error.start} is no UTF-8.", "Save the file as UTF-8.") from None


def notes_bytes(name: str) -> bytes:
    """The beginning of the file; one byte more than NOTES_READ when there is more."""
    if name == "-":
        if sys.stdin is None:
            raise Refusal("notes '-': standard input is closed.", "Name a text file.")
        return sys.stdin.buffer.read(NOTES_READ + 1)
    check_there("notes", name, "Name a text file, or - for standard input.")
    try:
        # A pipe that nobody writes into would otherwise hold us for ever.
        descriptor = os.open(name, os.O_RDONLY | os.O_NONBLOCK)
        os.set_blocking(descriptor, True)
        with open(descriptor, "rb") as file:
            return file.read(NOTES_READ + 1)
    except OSError as error:
        raise Refusal(f"notes '{name}': {error.strerror}.", "Make it readable for you.") from None
