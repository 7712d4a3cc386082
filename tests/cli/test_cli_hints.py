# SPDX-License-Identifier: ISC
"""fwupdate-cli knows advice for texts that the daemon has, and for no others."""
import re

from simulated_router import PROJECT

# The daemon's texts; tests/router/texts_test.cpp holds this table to the source.
TABLE = (PROJECT / "tests/router/texts_table.h").read_text()


def test_every_hint_is_for_a_text_of_the_daemon():
    script = (PROJECT / "cli/lib/hints.sh").read_text()
    body = script[script.index("hint_for() {"):script.index("\n}\n")]
    beginnings = re.findall(r'"([^"]*)"\*', body)
    assert len(beginnings) > 30
    unknown = [text for text in beginnings if f'"{text}' not in TABLE]
    assert unknown == ["Error, couldn't open /tmp/"]  # there it is "%s"
