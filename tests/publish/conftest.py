# SPDX-License-Identifier: ISC
"""Fixtures for the tests of fwupdate-publish."""
import pathlib
import signal
import sys

import pytest

here = pathlib.Path(__file__).resolve().parent
project = here.parent.parent
sys.path[:0] = [str(here), str(project / "publish")]

import forked_program  # noqa: E402
import fwupdate_maker.fleet.command_line  # noqa: E402, F401 the forked programs have it then
import fwupdate_maker.publisher.command_line  # noqa: E402, F401
import hypothesis.configuration  # noqa: E402
import make_images  # noqa: E402
from simulated_router import Router  # noqa: E402

# Its tables of characters would lie in the project's folder otherwise.
hypothesis.configuration.set_hypothesis_home_dir(project / "build/hypothesis")

# A shell lets what it starts in the background ignore Ctrl-C, and programs inherit that.
signal.signal(signal.SIGINT, signal.default_int_handler)


class Publisher:
    """fwupdate-publish as a maker runs it, in a folder of its own."""

    def __init__(self, folder):
        self.folder = folder
        self.out = folder / "served"
        self.image = folder / "firmware.bin"
        self.image.write_bytes(make_images.uimage(b"kernel" * 100))

    def run(self, *words, stdin=b""):
        result = forked_program.run(project / "publish/fwupdate-publish", words, self.folder, stdin)
        result.text = result.stdout.decode() + result.stderr.decode()
        return result

    def words(self, **changes):
        """A command line that publishes; a change of None leaves the option out."""
        values = {"image": self.image, "version": "2.1.0", "build": "174200000",
                  "url": "http://192.0.2.1", "out": self.out}
        flags = ["--" + name.replace("_", "-") for name, value in changes.items() if value is True]
        values.update((k, v) for k, v in changes.items() if v is not True)
        image = values.pop("image")
        words = ["publish"] if image is None else ["publish", image]
        for name, value in values.items():
            if value is not None:
                words += ["--" + name.replace("_", "-"), str(value)]
        return words + flags

    def publish(self, **changes):
        return self.run(*self.words(**changes))

    def notes(self, content):
        path = self.folder / "notes.txt"
        path.write_bytes(content if isinstance(content, bytes) else content.encode())
        return path

    def files(self):
        """Everything below the folder, for "nothing was changed"."""
        return {str(p.relative_to(self.folder)): p.read_bytes() if p.is_file() else None
                for p in sorted(self.folder.rglob("*"))}


@pytest.fixture
def publisher(tmp_path):
    return Publisher(tmp_path)


@pytest.fixture(scope="module")
def router(tmp_path_factory):
    """One router for a whole file of tests."""
    with Router(server_root=tmp_path_factory.mktemp("served")) as router:
        yield router
