# SPDX-License-Identifier: ISC
"""The manifest: the XML document that a router gets when it asks for firmware.

The limits are the daemon's. It cuts, misreads or drops what is beyond them and says
nothing, so all of them are checked here, before any router can ask.
"""
from __future__ import annotations

import dataclasses
import re
import unicodedata
import xml.etree.ElementTree as ElementTree

from ..refusal import UNSHOWN, Refusal

MANIFEST = "update.xml"

ANSWER_LIMIT = 1024  # bytes of the whole document
BUILD_DIGITS = 9
# A text of the field's full size would run on into the next field: one byte less.
VERSION_LIMIT = 19  # bytes, as UTF-8
NOTES_LIMIT = 511
URL_LIMIT = 255

# An element without text leaves the router with the notes of the version before;
# a blank replaces them.
NO_NOTES = " "

# The declaration is not decoration: the router's XML library does not find an
# element that is the very root of the document, and this makes it the second.
TEMPLATE = """<?xml version="1.0" encoding="utf-8"?>
<update>
<buildtime>{build}</buildtime>
<url>{url}</url>
<version>{version}</version>
<release_notes>{notes}</release_notes>
<force_update>{force}</force_update>
<archive>0</archive>
</update>
"""


@dataclasses.dataclass(frozen=True)
class Manifest:
    """One release as routers see it. Every element is always written: a router keeps
    the value of an earlier manifest for each one that is missing."""

    build: str
    url: str
    version: str
    notes: str = NO_NOTES
    force: bool = False

    def text(self) -> bytes:
        return TEMPLATE.format(
            build=self.build,
            url=escaped(self.url),
            version=escaped(self.version),
            notes=escaped(self.notes),
            force=int(self.force),
        ).encode()


def escaped(text: str) -> str:
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


def parse(document: bytes) -> Manifest:
    """The Manifest that text() wrote; ValueError when something else is in the file."""
    try:
        root = ElementTree.fromstring(document)
    except ElementTree.ParseError as error:
        raise ValueError(f"is no XML ({error})") from None
    values = {child.tag: child.text or "" for child in root}
    for name in ("buildtime", "url", "version"):
        if not values.get(name):
            raise ValueError(f"has no <{name}>")
    if not is_build(values["buildtime"]):
        raise ValueError(f"has the build number '{values['buildtime']}'")
    return Manifest(values["buildtime"], values["url"], values["version"],
                    values.get("release_notes") or NO_NOTES, values.get("force_update") == "1")


def is_build(text: str) -> bool:
    return re.fullmatch(r"[1-9][0-9]{0,8}", text, re.ASCII) is not None


def check_build(build: str) -> None:
    if re.fullmatch(r"[0-9]{10,}", build, re.ASCII):
        raise Refusal(
            f"build number '{build}': it has {len(build)} digits. A router keeps the first"
            f" {BUILD_DIGITS} ('{build[:BUILD_DIGITS]}') and compares them with all digits of its"
            " own build date: a router with ten digits looks newer than any release, and"
            " releases less than ten seconds apart look the same.",
            f"Give at most {BUILD_DIGITS} digits, here and as the image's own build date: for"
            f" example the time stamp in tens of seconds, {build[:BUILD_DIGITS]}.")
    if not is_build(build):
        raise Refusal(f"build number '{build}': it is not a decimal number of 1 to {BUILD_DIGITS}"
                      " digits that begins with 1 to 9.",
                      "Give the image's own build date, for example 174117600.")


# Characters that XML does not allow, that the router's XML library drops (the byte
# order mark), or that no terminal shows.
UNPRINTABLE = re.compile("[\x00-\x08\x0b-\x1f\x7f-\x9f\ud800-\udfff\ufeff\ufffe\uffff]")
BLANK_SIGNS = "\u115f\u1160\u2800\u3164\uffa0"  # letters and signs without ink
# Text that is written from right to left, or out of joined signs, needs these.
JOINERS = "\u200c\u200d\u200e\u200f"


def check_text(name: str, text: str, limit: int, allowed: str = "") -> None:
    """A text for people: of 1 to `limit` bytes, nothing that does not show but `allowed`."""
    bad = next((c for c in text if c not in allowed and (UNSHOWN.match(c) or UNPRINTABLE.match(c))), None)
    if bad is not None:
        raise Refusal(f"{name}: it holds the character U+{ord(bad):04X}, which cannot be sent.",
                      "Take it out; plain text in UTF-8 is what routers show.")
    if all(unicodedata.category(c) in ("Zs", "Zl", "Zp", "Cc", "Cf") or c in BLANK_SIGNS for c in text):
        raise Refusal(f"{name}: it is empty. A router would keep the text of an earlier version.",
                      "Give at least one character that can be seen.")
    length = len(text.encode())
    if length > limit:
        raise Refusal(f"{name}: it has {length} bytes; a router keeps {limit} and reads on into"
                      " the next value.",
                      f"Shorten it to {limit} bytes (one letter with an accent takes two).")


def check_version(version: str) -> None:
    check_text(f"version '{printable(version)}'", version, VERSION_LIMIT)
    if version != version.strip():
        raise Refusal(f"version '{version}': it begins or ends with a blank.", "Leave the blank out.")


def check_notes(notes: str) -> None:
    if notes != NO_NOTES:
        check_text("release notes", notes, NOTES_LIMIT, allowed="\t\n" + JOINERS)


def printable(text: str) -> str:
    return text.encode("unicode_escape").decode() if UNPRINTABLE.search(text) or UNSHOWN.search(text) else text


def check_url(url: str) -> None:
    if len(url) > URL_LIMIT:
        raise Refusal(f"image URL '{url}': it has {len(url)} bytes; a router keeps {URL_LIMIT}.",
                      "Shorten the base URL or the image's file name.")


def check_answer(manifest: Manifest) -> None:
    length = len(manifest.text())
    if length > ANSWER_LIMIT:
        raise Refusal(f"manifest: it would have {length} bytes, and a router refuses an answer of"
                      f" more than {ANSWER_LIMIT}.",
                      f"Shorten the release notes by {length - ANSWER_LIMIT} bytes ('&' takes 5,"
                      " '<' and '>' take 4).")
