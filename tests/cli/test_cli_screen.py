# SPDX-License-Identifier: ISC
"""The progress bar and the words for sizes, function by function, under BusyBox ash."""
import pytest

from simulated_router import Router

MIB = 1048576


@pytest.fixture(scope="module")
def router():
    with Router("--bare") as router:
        yield router


def run(router, call, columns):
    """Without a terminal the width comes from COLUMNS."""
    output = router.run(f". /usr/share/fwupdate-cli/screen.sh; {call}",
                        environment={"COLUMNS": str(columns)}).output
    assert output.startswith("\r") or "draw" not in call
    return output.removeprefix("\r").rstrip("\n")


@pytest.mark.parametrize("size, words", [
    (0, "0 bytes"), (1023, "1023 bytes"), (1024, "1 KiB"), (MIB - 1, "1023 KiB"),
    (MIB, "1.0 MiB"), (24 * MIB, "24.0 MiB"), (13421772, "12.7 MiB"), (4294967295, "4095.9 MiB")])
def test_sizes_in_words(router, size, words):
    assert run(router, f"in_words {size}", 80) == words


HALF = (12 * MIB, 24 * MIB, 2 * MIB)


@pytest.mark.parametrize("columns, numbers, line", [
    (100, HALF, f"[{'#' * 25}{'.' * 25}]  50 %  12.0 of 24.0 MiB  2.0 MiB/s  0:06 left"),
    (80, HALF, f"[{'#' * 15}{'.' * 16}]  50 %  12.0 of 24.0 MiB  2.0 MiB/s  0:06 left"),
    (50, HALF, f"[{'#' * 11}{'.' * 12}]  50 %  12.0 of 24.0 MiB"),
    (24, HALF, f"[{'#' * 7}{'.' * 8}]  50 %"),
    (14, HALF, " 50 %"),
    (80, (0, 24 * MIB, 0), f"[{'.' * 50}]   0 %  0 bytes of 24.0 MiB"),
    (80, (500 * 1024, 24 * MIB, 1024),
     f"[{'.' * 24}]   2 %  500 KiB of 24.0 MiB  1 KiB/s  6 h 41 min left"),
    (80, (4294967295, 4294967295, 9 * MIB),
     f"[{'#' * 27}] 100 %  4095.9 of 4095.9 MiB  9.0 MiB/s  0:00 left"),
    (80, (10, 1000, 100), f"[{'.' * 29}]   1 %  10 of 1000 bytes  100 bytes/s  0:09 left"),
    (80, (1200, 1000, 0), f"[{'#' * 50}] 100 %  1 KiB of 1000 bytes"),
])
def test_progress_at_a_width(router, columns, numbers, line):
    drawn = run(router, f"draw_progress {' '.join(map(str, numbers))}", columns)
    # One short of the edge, and padded over what was there.
    assert drawn == line.ljust(columns - 1)
