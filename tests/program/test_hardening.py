# SPDX-License-Identifier: ISC
"""How the program that ships is linked and compiled against attacks on its memory, as readelf tells
it: the release build's, and the one that README's lines for building by hand make. Each question is also asked of a program that was built the other way, so that an answer that is
always yes would be noticed."""
import os
import pathlib
import re
import subprocess

import by_hand
import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
DAEMON = pathlib.Path(os.environ.get("FWUPDATE_BUILD", PROJECT / "build/release")) / "src/fwupdate"

# Calls that Fortify always replaces: who finds one here has found a file compiled without.
FORTIFIED = {"fprintf", "printf", "snprintf", "sprintf", "syslog", "vfprintf", "vsnprintf",
             "vsyslog"}

WEAK_SOURCE = """
#include <stdio.h>
int main(int count, char **words)
{
	char text[16];
	snprintf(text, sizeof(text), "%d", count);
	return puts(text) < 0 || words[0] == 0;
}
"""
WEAK_OPTIONS = ("-O2", "-no-pie", "-fno-pie", "-fno-stack-protector", "-U_FORTIFY_SOURCE",
                "-Wl,-z,norelro", "-Wl,-z,lazy", "-Wl,-z,execstack", "-Wl,-rpath,/somewhere")


def readelf(program, option):
    return subprocess.run(["readelf", "-W", option, program], capture_output=True, text=True,
                          check=True).stdout


def segments(program):
    """Kind and access of each: ("LOAD", "R E"), ..."""
    return re.findall(r"^  (\S+) +0x\S+ 0x\S+ 0x\S+ 0x\S+ 0x\S+ ([RWE ]{3})",
                      readelf(program, "--segments"), re.MULTILINE)


def calls(program):
    """What the program calls in libraries."""
    return set(re.findall(r" UND (\w+)", readelf(program, "--dyn-syms")))


def is_position_independent(program):
    return re.search(r"\(FLAGS_1\).*\bPIE\b", readelf(program, "--dynamic")) is not None


def has_read_only_relocations(program):
    return "GNU_RELRO" in [kind for kind, _ in segments(program)]


def binds_immediately(program):
    return re.search(r"\(FLAGS(_1)?\).*\b(BIND_)?NOW\b", readelf(program, "--dynamic")) is not None


def has_no_executable_stack(program):
    return [access for kind, access in segments(program) if kind == "GNU_STACK"] == ["RW "]


def has_no_code_that_can_be_written(program):
    return not [kind for kind, access in segments(program) if "W" in access and "E" in access]


def protects_its_stack(program):
    return "__stack_chk_fail" in calls(program)


def calls_are_fortified(program):
    """musl has no such functions. Headers of a router's build system check without them."""
    if "[libc.so]" in readelf(program, "--dynamic"):
        return True
    found = calls(program)
    return not found & FORTIFIED and {"__vsnprintf_chk", "__syslog_chk"} <= found


def looks_for_libraries_in_system_folders_only(program):
    return re.search(r"\((RPATH|RUNPATH)\)", readelf(program, "--dynamic")) is None


QUESTIONS = (is_position_independent, has_read_only_relocations, binds_immediately,
             has_no_executable_stack, has_no_code_that_can_be_written, protects_its_stack,
             calls_are_fortified, looks_for_libraries_in_system_folders_only)


@pytest.fixture(name="weak", scope="module")
def weak_program(tmp_path_factory):
    program = tmp_path_factory.mktemp("weak") / "weak"
    subprocess.run(["cc", "-x", "c", "-", *WEAK_OPTIONS, "-o", program], input=WEAK_SOURCE,
                   text=True, check=True)
    return program


@pytest.mark.parametrize("holds", QUESTIONS, ids=lambda question: question.__name__)
def test_the_program(holds):
    assert holds(DAEMON)


@pytest.fixture(name="by_hand_root", scope="module")
def by_hand_root_folder(tmp_path_factory):
    return by_hand.build(tmp_path_factory.mktemp("by_hand"))


@pytest.mark.parametrize("holds", QUESTIONS, ids=lambda question: question.__name__)
def test_the_program_built_by_hand(holds, by_hand_root):
    assert holds(by_hand_root / "usr/sbin/fwupdate")


def test_no_stand_in_is_in_the_program_built_by_hand(by_hand_root):
    """The bus is another's library, as on a router."""
    program = by_hand_root / "usr/sbin/fwupdate"
    needed = set(re.findall(r"\(NEEDED\).*\[(\w+)", readelf(program, "--dynamic")))
    assert {"libubox", "libubus", "libcurl"} <= needed
    assert "libstdc" not in needed and "libzip" not in needed
    assert {"ubus_connect", "uloop_init"} <= calls(program)


def test_lines_for_building_by_hand_install_what_a_router_needs(by_hand_root):
    installed = {str(path.relative_to(by_hand_root)) for path in by_hand_root.rglob("*") if path.is_file()}
    assert {"usr/sbin/fwupdate", "usr/bin/fwupdate-cli"} <= installed
    assert not [name for name in installed if "publish" in name]


@pytest.mark.parametrize("holds", QUESTIONS, ids=lambda question: question.__name__)
def test_a_weak_program_is_noticed(holds, weak):
    assert not holds(weak)
