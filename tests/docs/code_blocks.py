# SPDX-License-Identifier: ISC
"""Code in the documents that is not run: it must not hold commands.

Commands stand in ```console blocks, which console.py runs or lists as not run. Whatever
else is shown says what it is: a block without a word, and an indented one, could be both.
"""
import re

SAMPLES = ("cpp", "nginx", "python", "text", "uci")

COMMAND = re.compile(r"""\s*(\$\s
    | \./\w
    | (bench|cli|docs|fuzz|publish|testbed|tests)/\w
    | (/usr/bin/python3|apt-get|cmake|cp|curl|fwtool|fwupdate-cli|fwupdate-publish|git|logread|make|mkdir
      |mkimage|nginx|rclone|sudo|sysupgrade|testbed|ubus|uci|wget)\s
    )""", re.VERBOSE)

LIST_ITEM = re.compile(r"\s*([-*+]|\d+\.)\s")


def faults(text):
    """(line number, what is wrong) of every place."""
    fence, list_open, blank = None, False, True
    for number, line in enumerate(text.splitlines(), 1):
        if line.lstrip().startswith("```"):
            fence = line.strip()[3:] if fence is None else None
            if fence is not None and fence != "console" and fence not in SAMPLES:
                yield number, f"a block of '{fence}'; write ```console, or one of {', '.join(SAMPLES)}"
        elif fence is None:
            if line.startswith("    ") and blank and not list_open:
                yield number, "an indented block; write ```console, or one of " + ", ".join(SAMPLES)
            if line and not line.startswith(" "):
                list_open = LIST_ITEM.match(line) is not None
        elif fence != "console" and COMMAND.match(line):
            yield number, f"a command in a block of '{fence}'; write ```console"
        blank = line.strip() == ""
