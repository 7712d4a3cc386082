# SPDX-License-Identifier: ISC
"""The same sources give the same program, byte for byte, whatever folder they are in, so that anybody
can build a release again and see that it is what it says."""
import hashlib
import json
import os
import pathlib
import shutil
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
NOT_SOURCES = shutil.ignore_patterns("build", ".git", "__pycache__")


def release_options():
    """What the preset `release` says; `cmake --preset` would build inside of the sources."""
    presets = json.loads((PROJECT / "CMakePresets.json").read_text())["configurePresets"]
    variables = next(preset["cacheVariables"] for preset in presets
                     if preset["name"] == "release")
    return [f"-D{name}={value}" for name, value in variables.items()] + ["-DBUILD_TESTING=OFF"]


def run(*words, **settings):
    # A compiler cache would hand out what the first build has compiled.
    environment = {name: value for name, value in os.environ.items()
                   if not name.startswith("CMAKE_")}
    result = subprocess.run(words, env=environment | {"CCACHE_DISABLE": "1"} | settings,
                            capture_output=True, text=True, check=False)
    assert result.returncode == 0, result.stdout + result.stderr


def build(folder, jobs, **settings):
    """Builds a copy of the sources in `folder`; returns the program's bytes."""
    sources, output = folder / "sources", folder / "output"
    shutil.copytree(PROJECT, sources, ignore=NOT_SOURCES, symlinks=True)
    run("cmake", "-G", "Ninja", "-S", sources, "-B", output, *release_options(), **settings)
    run("cmake", "--build", output, "-j", jobs, "--target", "fwupdate", **settings)
    return (output / "src" / "fwupdate").read_bytes()


@pytest.fixture(name="first", scope="module")
def first_program(tmp_path_factory):
    return build(tmp_path_factory.mktemp("a"), "1", TZ="UTC", LC_ALL="C")


def test_two_folders_give_the_same_bytes(first, tmp_path):
    longer = tmp_path / ("a folder with a name of its own, and a longer one " * 2).strip()
    longer.mkdir()
    second = build(longer, "2", TZ="Asia/Tokyo", LC_ALL="C.UTF-8")
    assert hashlib.sha256(second).hexdigest() == hashlib.sha256(first).hexdigest()


def test_no_folder_of_the_builder_is_in_the_program(first, tmp_path_factory):
    assert str(tmp_path_factory.getbasetemp()).encode() not in first
    assert str(PROJECT).encode() not in first
