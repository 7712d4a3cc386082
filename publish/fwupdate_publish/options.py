# SPDX-License-Identifier: ISC
"""The command line's options."""
import argparse
import re

from .refusal import one_line

REFUSED = 2

DESCRIPTION = """\
Publishes firmware for routers that run fwupdate: writes the image and the manifest
update.xml into the folder that the update server serves. Whatever a router would cut,
misread or reject is refused, with the reason.

  fwupdate-publish IMAGE --version V --build N --url BASE --out DIR   publish a release
  fwupdate-publish rollback [BUILD] --out DIR                         put an earlier one back
  fwupdate-publish --verify URL --out DIR                             ask the server and compare
"""


def number_of_bytes(text):
    """"0x1800000", "25165824", "24M": a size in bytes."""
    match = re.fullmatch(r"(0[xX][0-9a-fA-F]{1,15}|[0-9]{1,15})([KM]?)", text, re.ASCII)
    size = int(match.group(1), 0 if match.group(1)[:2] in ("0x", "0X") else 10) if match else 0
    if size == 0:
        raise argparse.ArgumentTypeError(
            f"'{text}' is no size; give bytes, such as 25165824, 0x1800000 or 24M")
    return size << {"": 0, "K": 10, "M": 20}[match.group(2)]


class Parser(argparse.ArgumentParser):
    def error(self, message):
        self.exit(REFUSED, f"fwupdate-publish: {one_line(message)}.\n  See --help.\n")


class Once(argparse.Action):
    """An option with a value; the second of two would silently win."""

    def __call__(self, parser, namespace, value, option_string=None):
        before = getattr(namespace, self.dest)
        if before is not None:
            parser.error(f"{option_string}: it is given twice, as '{before}' and as '{value}'; give it once")
        setattr(namespace, self.dest, value)


def parser():
    parser = Parser(
        prog="fwupdate-publish", description=DESCRIPTION, add_help=False, allow_abbrev=False,
        usage=argparse.SUPPRESS, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.register("action", None, Once)
    parser.add_argument("words", nargs="*", action="store", help=argparse.SUPPRESS)
    add = parser.add_argument
    add("--out", metavar="DIR", help="the folder that the server serves")
    add("--version", metavar="TEXT", help="the version as people read it, at most 19 bytes")
    add("--build", metavar="N", help="the image's own build date, a number of at most 9 digits")
    add("--url", metavar="BASE", help="the address at which routers find the folder")
    add("--notes", metavar="FILE", help="release notes, at most 511 bytes; - reads standard input")
    add("--model", metavar="NAME", help="refuse an image that is made for another model")
    add("--partition-size", metavar="BYTES", type=number_of_bytes,
        help="refuse an image that is larger than the flash partition")
    add("--force", action="store_true", help="routers take it in place of any other build, not only of older ones")
    add("--dry-run", action="store_true", help="check everything, show the manifest, write nothing")
    add("--verify", metavar="URL", help="ask this manifest URL as a router does and compare every byte")
    add("--help", action="help", help="show this")
    return parser
