# SPDX-License-Identifier: ISC
"""The program that README's own lines for building by hand make, in a copy of the sources."""
import os
import pathlib
import re
import shutil
import subprocess

PROJECT = pathlib.Path(__file__).resolve().parents[2]
NOT_SOURCES = shutil.ignore_patterns("build", ".git", "__pycache__")


def lines():
    """The commands of the block that configures build/router."""
    blocks = re.findall(r"```console\n(.*?)```", (PROJECT / "README.md").read_text(), re.DOTALL)
    block, = [text for text in blocks if "cmake -S . -B build/router" in text]
    return [command.replace("\\\n", "") for command in re.findall(r"^\$ ((?:.*\\\n)*.*)$", block, re.MULTILINE)]


def build(folder):
    """Runs them; returns the folder that they install into."""
    sources = folder / "sources"
    shutil.copytree(PROJECT, sources, ignore=NOT_SOURCES, symlinks=True)
    environment = {name: value for name, value in os.environ.items() if not name.startswith("CMAKE_")}
    for command in lines():
        subprocess.run(["bash", "-c", command], cwd=sources, env=environment, check=True)
    return sources / "build/root"
