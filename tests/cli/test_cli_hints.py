# SPDX-License-Identifier: ISC
"""The advice of fwupdate-cli and the table of it in docs/troubleshooting.md are one."""
import re

from simulated_router import PROJECT

HEADING = "## What fwupdate-cli says"


def advice():
    """(texts, advice) for every case of hint_for, from the script."""
    script = (PROJECT / "cli/lib/hints.sh").read_text()
    body = script[script.index("hint_for() {"):script.index("\n}\n")]
    cases = re.findall(r'^\t(".*"\*)\)\n\t\techo "(.*)" ;;$', body, re.M)
    assert len(cases) == body.count(";;")
    for patterns, text in cases:
        yield re.findall(r'"(.*?)"\*', patterns), text


def table():
    document = (PROJECT / "docs/troubleshooting.md").read_text()
    section = document[document.index(HEADING):].split("\n## ")[0]
    rows = re.findall(r"^\| (`.*`) \| (.*) \|$", section, re.M)
    for texts, text in rows:
        yield re.findall(r"`(.*?)`", texts), text.replace("`", "")


def test_the_table_is_what_the_command_says():
    assert [(texts, text.replace("'", "")) for texts, text in table()] == \
        [([text.strip() for text in texts], text.replace("'", "")) for texts, text in advice()]
