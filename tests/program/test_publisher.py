# SPDX-License-Identifier: ISC
"""README's line that installs the maker's tools: it needs no compiler and no CMake, and what it
installs runs without the sources."""
import pathlib
import re
import shutil
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
NEEDED = ("sh", "make", "install", "python3")


@pytest.fixture(name="installed", scope="module")
def installed_folder(tmp_path_factory):
    folder = tmp_path_factory.mktemp("publisher")
    tools = folder / "tools"
    tools.mkdir()
    for name in NEEDED:
        (tools / name).symlink_to(shutil.which(name))
    shutil.copytree(PROJECT / "publish", folder / "sources/publish", ignore=shutil.ignore_patterns("__pycache__"))
    shutil.copytree(PROJECT / "docs/man", folder / "sources/docs/man")
    command, = re.findall(r"^\$ (make .*-C publish install.*)$", (PROJECT / "README.md").read_text(), re.MULTILINE)
    subprocess.run(["/bin/bash", "-c", command], cwd=folder / "sources", env={"PATH": str(tools)}, check=True)
    (folder / "sources/build/root").rename(folder / "root")
    shutil.rmtree(folder / "sources")
    return folder / "root/usr"


def test_every_tool_runs_and_has_its_manual_page(installed):
    programs = sorted(path.name for path in (installed / "bin").iterdir())
    assert "fwupdate-publish" in programs
    assert programs == sorted(path.name for path in (PROJECT / "publish").glob("fwupdate-*"))
    for program in programs:
        shown = subprocess.run([installed / "bin" / program, "--help"], cwd="/", capture_output=True, text=True, check=True)
        assert shown.stdout.strip(), program
        assert (installed / f"share/man/man1/{program}.1").is_file(), program
