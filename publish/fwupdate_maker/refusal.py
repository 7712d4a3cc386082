# SPDX-License-Identifier: ISC
"""Input that is refused: what is wrong with which value, and what would be right."""
from __future__ import annotations

import re

LONG_WORD = 300  # no legal value is longer; of a longer one the beginning is enough
BEGINNING = 60

# Control characters, and those that hide or turn round what stands beside them.
UNSHOWN = re.compile("[\x00-\x1f\x7f-\x9f\u00ad\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff]")


class Refusal(Exception):
    """`reason` names the value and what is wrong with it, `remedy` what would be right."""

    def __init__(self, reason: str, remedy: str) -> None:
        super().__init__(f"{one_line(reason)}\n  {remedy}")


def one_line(text: str) -> str:
    """The text as a terminal may get it: what does not show is escaped, overlong words are cut."""
    text = UNSHOWN.sub(lambda match: match.group().encode("unicode_escape").decode(), text)
    return re.sub(rf"(\S{{{BEGINNING}}})\S{{{LONG_WORD - BEGINNING},}}", r"\1...", text)
