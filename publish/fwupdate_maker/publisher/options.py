# SPDX-License-Identifier: ISC
"""The subcommands and their options."""
from __future__ import annotations

import argparse
import re
from typing import Any, Callable, NoReturn

from ..refusal import one_line

REFUSED = 2

USAGE = """\
Publishes firmware for routers that run fwupdate: writes the image and the manifest
update.xml into the folder that the update server serves. Whatever a router would cut,
misread or reject is refused, with the reason.

  fwupdate-publish publish IMAGE --version V --build N --url BASE --out DIR
  fwupdate-publish rollback [BUILD] --out DIR       put an earlier release back
  fwupdate-publish promote --from DIR --to DIR      offer the release of one folder in another
  fwupdate-publish list --out DIR                   the releases that the folder keeps
  fwupdate-publish status --out DIR                 what routers get now, and whether it is whole
  fwupdate-publish prune --keep N --out DIR         remove all but the newest releases
  fwupdate-publish verify URL --out DIR             ask the server and compare
  fwupdate-publish sign IMAGE --build N --sign KEY --output FILE
  fwupdate-publish keys [make NAME | show PUB]      keys that images are signed with

'fwupdate-publish COMMAND --help' shows the options of a command.
"""

Add = Callable[..., Any]


def number_of_bytes(text: str) -> int:
    """"0x1800000", "25165824", "24M", or "01800000" as /proc/mtd has it: a size in bytes."""
    match = re.fullmatch(r"(0[xX][0-9a-fA-F]{1,15}|[0-9]{1,15})([KM]?)", text, re.ASCII)
    if re.fullmatch(r"0[0-9a-fA-F]{7}|[0-9a-fA-F]*[a-fA-F][0-9a-fA-F]*", text) and len(text) == 8:
        size = int(text, 16)
    else:
        size = int(match.group(1), 0 if match.group(1)[:2] in ("0x", "0X") else 10) if match else 0
    if size == 0:
        raise argparse.ArgumentTypeError(
            f"'{text}' is no size; give bytes, such as 25165824, 0x1800000 or 24M")
    return size << ({"": 0, "K": 10, "M": 20}[match.group(2)] if match else 0)


def number(text: str) -> int:
    if not re.fullmatch(r"[0-9]{1,6}", text, re.ASCII):
        raise argparse.ArgumentTypeError(f"'{text}' is no number from 0 to 999999")
    return int(text)


def at_least_one(text: str) -> int:
    if number(text) == 0:
        raise argparse.ArgumentTypeError("it is at least 1")
    return number(text)


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        self.exit(REFUSED, f"fwupdate-publish: {one_line(message)}.\n  See --help.\n")


class Once(argparse.Action):
    """An option with a value; the second of two would silently win."""

    def __call__(self, parser: argparse.ArgumentParser, namespace: argparse.Namespace, value: Any,
                 option_string: str | None = None) -> None:
        before = getattr(namespace, self.dest)
        if before is not None:
            parser.error(f"{option_string}: it is given twice, as '{before}' and as '{value}'; give it once")
        setattr(namespace, self.dest, value)


def add_out(add: Add) -> None:
    add("--out", metavar="DIR", help="the folder that the server serves")


def add_writing(add: Add) -> None:
    add("--dry-run", action="store_true", help="check everything, show what would be done, write nothing")
    add("--wait", metavar="SECONDS", type=number, help="how long to wait for another fwupdate-publish (60)")


def add_router(add: Add) -> None:
    add("--board", metavar="NAME", help="the board name that the question gives, as 'ubus call system board' has it")
    add("--serial", metavar="SN", help="the serial number that the question gives")


def add_verify(add: Add) -> None:
    add("--verify", metavar="URL", help="then ask this manifest URL as a router does and compare every byte")
    add_router(add)


def add_image_checks(add: Add) -> None:
    add("--model", metavar="NAME", help="refuse an image that is made for another model")
    add("--partition-size", metavar="BYTES", type=number_of_bytes,
        help="refuse an image that is larger than the flash partition")


def add_signing(add: Add) -> None:
    add("--sign", metavar="KEY", help="sign the image with this secret key")
    add("--key", metavar="PUB", help="refuse an image that the key of this public half did not sign")


def publish(add: Add) -> None:
    add("images", nargs="*", action="store", metavar="IMAGE")
    add_out(add)
    add("--version", metavar="TEXT", help="the version as people read it, at most 19 bytes")
    add("--build", metavar="N", help="the image's own build date, a number of at most 9 digits")
    add("--url", metavar="BASE", help="the address at which routers find the folder")
    add("--notes", metavar="FILE", help="release notes, at most 511 bytes; - reads standard input")
    add_image_checks(add)
    add("--other-model", action="store_true", help="the image may be for another model than the one before")
    add("--force", action="store_true", help="routers take it in place of any other build, not only of older ones")
    add_signing(add)
    add_writing(add)
    add_verify(add)


def rollback(add: Add) -> None:
    add("builds", nargs="*", action="store", metavar="BUILD")
    add_out(add)
    add("--url", metavar="BASE", help="the address at which routers find the folder, when it is a new one")
    add_writing(add)
    add_verify(add)


def promote(add: Add) -> None:
    add("--from", dest="source", metavar="DIR", help="the folder whose release is taken")
    add("--to", dest="out", metavar="DIR", help="the folder that offers it from now on")
    add("--url", metavar="BASE", help="the address of the second folder; known once something is in it")
    add("--key", metavar="PUB", help="refuse an image that the key of this public half did not sign")
    add("--force", action="store_true", help="routers take it in place of any other build")
    add_writing(add)
    add_verify(add)


def prune(add: Add) -> None:
    add("--keep", metavar="N", type=at_least_one, help="how many releases stay")
    add_out(add)
    add_writing(add)


def verify(add: Add) -> None:
    add("urls", nargs="*", action="store", metavar="URL")
    add_out(add)
    add("--model", metavar="NAME", help="the model to ask for, where --board is not given")
    add_router(add)


def sign(add: Add) -> None:
    add("images", nargs="*", action="store", metavar="IMAGE")
    add("--build", metavar="N", help="the image's own build date; the signature holds it")
    add_signing(add)
    add("--output", metavar="FILE", help="the signed image")


def keys(add: Add) -> None:
    add("words", nargs="*", action="store", metavar="make NAME | show PUB")


COMMANDS: dict[str, Callable[[Add], None]] = {
    "publish": publish, "rollback": rollback, "promote": promote, "list": add_out, "status": add_out,
    "prune": prune, "verify": verify, "sign": sign, "keys": keys}


def parser(command: str) -> Parser:
    made = Parser(prog=f"fwupdate-publish {command}", add_help=False, allow_abbrev=False)
    made.register("action", None, Once)
    COMMANDS[command](made.add_argument)
    made.add_argument("--help", action="help", help="show this")
    return made
