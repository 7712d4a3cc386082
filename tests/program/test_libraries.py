# SPDX-License-Identifier: ISC
"""Which libraries CMake takes, when more than one would do. The libraries here are empty files: nothing is
linked."""
import pathlib
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
PROBE = f"""
cmake_minimum_required(VERSION 3.25)
project(probe C)
set(BUILD_TESTING OFF)
include({PROJECT}/cmake/Libraries.cmake)
get_target_property(mxml fwupdate::mxml INTERFACE_LINK_LIBRARIES)
get_target_property(version fwupdate::mxml INTERFACE_COMPILE_DEFINITIONS)
file(WRITE ${{CMAKE_BINARY_DIR}}/mxml "${{mxml}} ${{version}}")
get_target_property(crc32 fwupdate::crc32 INTERFACE_LINK_LIBRARIES)
file(WRITE ${{CMAKE_BINARY_DIR}}/crc32 ${{crc32}})
"""


class Installed:
    """A folder that libraries are installed into, and what CMake makes of it."""

    def __init__(self, folder):
        self.folder = folder
        (folder / "probe").mkdir()
        (folder / "probe/CMakeLists.txt").write_text(PROBE)

    def add(self, library, header=None, text=""):
        path = self.folder / f"usr/lib/lib{library}.so"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.touch()
        if header:
            path = self.folder / "usr/include" / header
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)

    def add_mxml(self, major):
        name, header = ("mxml4", "libmxml4/mxml.h") if major == 4 else ("mxml", "mxml.h")
        self.add(name, header, f"#  define MXML_MAJOR_VERSION {major}\n")

    def configured(self):
        build = self.folder / "build"
        subprocess.run(["cmake", "-S", self.folder / "probe", "-B", build, "-G", "Ninja",
                        f"-DCMAKE_PREFIX_PATH={self.folder / 'usr'}", "-DFWUPDATE_LIBRARIES=system"],
                       check=True, stdout=subprocess.DEVNULL)
        return build


@pytest.fixture(name="installed")
def fixture_installed(tmp_path):
    folder = Installed(tmp_path)
    folder.add("ubox", "libubox/uloop.h")
    folder.add("ubus", "libubus.h")
    return folder


@pytest.mark.parametrize("versions, taken", [
    ((3,), "libmxml.so FWUPDATE_MXML_MAJOR=3"),
    ((4,), "libmxml4.so FWUPDATE_MXML_MAJOR=4"),
    ((3, 4), "libmxml4.so FWUPDATE_MXML_MAJOR=4"),
])
def test_mini_xml_is_the_one_of_the_header(installed, versions, taken):
    for version in versions:
        installed.add_mxml(version)
    assert (installed.configured() / "mxml").read_text() == f"{installed.folder}/usr/lib/{taken}"


def test_without_miniz_the_checksum_is_zlibs(installed):
    assert (installed.configured() / "crc32").read_text() == "ZLIB::ZLIB"


@pytest.mark.parametrize("header", ["miniz.h", "miniz/miniz.h"])
def test_miniz_is_taken_where_it_is(installed, header):
    installed.add("miniz", header)
    assert (installed.configured() / "crc32").read_text() == "fwupdate::miniz"
