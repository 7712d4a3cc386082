# SPDX-License-Identifier: ISC
"""Input that is not published: what is wrong with which value, and what would be right."""
import re

LONG_WORD = 300  # no legal value is longer; of a longer one the beginning is enough
BEGINNING = 60


class Refusal(Exception):
    """`reason` names the value and what is wrong with it, `remedy` what would be right."""

    def __init__(self, reason, remedy):
        super().__init__(f"{one_line(reason)}\n  {remedy}")


def one_line(text):
    """The text as a terminal may get it: control characters escaped, overlong words cut."""
    text = re.sub("[\x00-\x1f\x7f-\x9f]", lambda match: f"\\x{ord(match.group()):02x}", text)
    return re.sub(rf"(\S{{{BEGINNING}}})\S{{{LONG_WORD - BEGINNING},}}", r"\1...", text)
