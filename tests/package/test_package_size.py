# SPDX-License-Identifier: ISC
"""package/README.md says what each package takes on flash, and is not far from what it takes now."""
import os
import re
import subprocess

from simulated_router import BUILD, PROJECT


def rows(text):
    """Package -> bytes on flash."""
    return {name: int(flash) for name, flash in re.findall(r"\| `([\w-]+)` \| \d+ \| \d+ \| (\d+) \|", text)}


def test_table_has_each_package_and_is_within_an_eighth():
    measured = rows(subprocess.run([PROJECT / "package/size"], env={**os.environ, "FWUPDATE_BUILD": str(BUILD)},
                                   capture_output=True, text=True, check=True).stdout)
    told = rows((PROJECT / "package/README.md").read_text())
    assert measured.keys() == {path.parent.name for path in PROJECT.glob("package/*/Makefile")}
    assert told.keys() == measured.keys()
    assert {name: flash for name, flash in measured.items() if abs(flash - told[name]) > told[name] / 8} == {}
