# SPDX-License-Identifier: ISC
"""docs/troubleshooting.md explains every text of the guard, and no other."""
import re

from simulated_router import PROJECT

DOCUMENT = (PROJECT / "docs/troubleshooting.md").read_text()
SECTION = DOCUMENT[DOCUMENT.index("\n## The guard\n"):DOCUMENT.index("\n## What fwupdate-cli says\n")]
SCRIPTS = "".join((PROJECT / "guard" / name).read_text() for name in ("guard.sh", "sysupgrade", "trial"))


def plain(text):
    """Without what is filled in."""
    return re.sub(r"\$place", "/tmp/fwupdate-guard", re.sub(r"\$(build|running_build|status|2)\b", "N", text)).replace("than N", "than M") \
        .replace("'N'", "'NAME'")


def texts_of_the_scripts():
    refused = re.findall(r'refuse "([^"]*)"', SCRIPTS)
    more = re.findall(r'reason="\$reason; ([^"]*)"', SCRIPTS)
    arm = re.findall(r'^\t\techo "([^"]*)"', SCRIPTS, re.M)
    said = re.findall(r'(?:\|\||\{) (?:\{ )?say "(?:refused: )?([^"]*)"', SCRIPTS)
    return {plain(text) for text in refused + more + arm + said} - {"the boot environment cannot be written"}


def texts_of_the_document():
    rows = re.findall(r'^\| "(?:\.\.\.; )?([^|]*)" \| ', SECTION, re.M)
    return {row for row in rows if not row.endswith("...")} - {"the boot environment cannot be written"}


def test_every_text_is_explained():
    assert len(texts_of_the_scripts()) > 20
    assert texts_of_the_scripts() - texts_of_the_document() == set()


def test_no_other_text_is_explained():
    assert texts_of_the_document() - texts_of_the_scripts() == set()
