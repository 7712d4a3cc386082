# SPDX-License-Identifier: ISC
"""A small fleet: bench/fleet checks itself; and what it refuses."""
import subprocess
import sys

import pytest
from conftest import project

sys.path[:0] = [str(project / "bench")]

from fleet_parts.shares import murmur2, reached, serials  # noqa: E402 the path comes first


def fleet(*words):
    return subprocess.run([project / "bench/fleet", *words], capture_output=True, text=True, timeout=500)


def test_rollouts_reach_their_share_and_a_bad_image_stops_at_the_first_step():
    result = fleet("8")
    assert result.returncode == 0, result.stderr
    lines = result.stdout.splitlines()
    assert len(lines) == 6
    assert lines[1].startswith(" 10 percent: 1 routers")
    assert lines[2].startswith(" 50 percent: ") and "4 of 8 have it" in lines[2]
    assert lines[3].startswith("100 percent: ") and "8 of 8 have it" in lines[3]
    assert "refused it, none installed it" in lines[4]


@pytest.mark.parametrize("words", [[], ["3"], ["501"], ["x"], ["-8"], ["8", "8"]])
def test_wrong_number_is_refused(words):
    result = fleet(*words)
    assert result.returncode == 2
    assert "from 4 to 500" in result.stderr


def test_hash_of_nothing_and_the_ends_of_the_scale():
    """The rest of it is compared with nginx itself, in test_update_server.py."""
    assert murmur2(b"") == 0
    assert reached("SN0001", 100) and not reached("SN0001", 0)


@pytest.mark.parametrize("count", [4, 10, 40])
def test_serial_numbers_are_drawn_so_that_each_step_has_its_share(count):
    drawn = serials(count, (10, 50, 100))
    assert len(set(drawn)) == count
    assert sum(reached(s, 10) for s in drawn) == max(1, round(count / 10))
