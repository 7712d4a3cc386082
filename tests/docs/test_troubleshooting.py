# SPDX-License-Identifier: ISC
"""docs/troubleshooting.md explains every text that the daemon can log or answer, and
no other."""
import re

from console import project

DOCUMENT = (project / "docs/troubleshooting.md").read_text()
# The daemon's texts; tests/router/texts_test.cpp holds this table to the source.
TABLE = (project / "tests/router/texts_table.h").read_text()
SOURCE = "".join(p.read_text() for p in sorted((project / "src").rglob("*.cpp")))


def unescaped(text):
    return text.replace('\\"', '"').replace("\\n", "").replace("\\\\", "\\")


def texts_of_the_daemon():
    found = re.findall(r'\{\s*"(?:message|error)",\s*"((?:[^"\\]|\\.)*)"', TABLE)
    return {unescaped(t) for t in found} - {"%s [%d]"}  # the form of the image check's texts


def texts_of_the_source():
    """What the source hands to the log, found without the table."""
    calls = re.findall(r'log_message\(\s*"((?:[^"\\]|\\.)*)"', SOURCE)
    probes = re.findall(r'"(Error on reading (?:[^"\\]|\\.)*)"', SOURCE)
    checks = re.findall(r'return "((?:[^"\\]|\\.)*)";', SOURCE)
    return {unescaped(t) for t in calls + probes + checks}


def rows():
    """Text -> (meaning, remedy), from the tables whose first column is a text."""
    found = {}
    for line in DOCUMENT.splitlines():
        row = re.fullmatch(r"\| `(.*)` \| (.*) \| (.*) \|", line)
        if row:
            assert row.group(1) not in found, f"twice: {row.group(1)}"
            found[row.group(1)] = row.group(2), row.group(3)
    return found


def test_every_text_is_explained():
    assert sorted(texts_of_the_daemon() - rows().keys()) == []


def test_every_text_that_the_source_logs_is_explained():
    states = {"NONE", "UNKNOWN"} | set(re.findall(r'return "([A-Z_]+)";', SOURCE))
    texts = texts_of_the_source() - states - {"%s", "%s [%d]", ""}
    assert len(texts) > 40
    assert sorted(texts - rows().keys()) == []


def test_no_other_text_is_explained():
    assert sorted(rows().keys() - texts_of_the_daemon()) == []


def test_every_row_says_what_it_means_and_what_to_do():
    assert [text for text, (meaning, remedy) in rows().items() if len(meaning) < 5 or len(remedy) < 7] == []

