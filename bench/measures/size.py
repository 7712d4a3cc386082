# SPDX-License-Identifier: ISC
"""Bytes on flash: the stripped program, and what an updater brings that a router lacks."""
import pathlib
import re
import subprocess
import tempfile

from measures.samples import Row

# What a router of this family has anyway, by the beginning of the library's name.
AT_HOME = ("libc.so", "libm.so", "ld-linux", "linux-vdso", "libcurl.so", "libubox", "libubus",
           "libblobmsg", "libjson-c", "libz.so", "libssl", "libcrypto", "libgcc_s", "libpthread",
           "libdl.so")
CURL = "/usr/bin/curl"  # whose libraries are libcurl's


def stripped(program):
    """Bytes of a program without symbols."""
    with tempfile.TemporaryDirectory() as folder:
        out = pathlib.Path(folder, "program")
        subprocess.run(["strip", "-s", "-o", out, program], check=True)
        return out.stat().st_size


def libraries(program):
    """The libraries it loads, name -> path."""
    output = subprocess.run(["ldd", program], check=True, stdout=subprocess.PIPE,
                            text=True).stdout
    return dict(re.findall(r"(\S+) => (/\S+)", output))


def own_libraries(program, curl):
    """Bytes of the libraries that it alone brings: neither at home on a router nor libcurl's."""
    shared = set(libraries(curl))
    return sum(pathlib.Path(path).resolve().stat().st_size
               for name, path in libraries(program).items()
               if name not in shared and not name.startswith(AT_HOME))


def shared_program(project):
    """The program with libubox and libubus as shared libraries, as a router and its peers have
    theirs; `bench/size` builds it, and says more about it."""
    subprocess.run([project / "bench/size"], check=True, stdout=subprocess.DEVNULL)
    return next(project.glob("build/size/*-shared/src/fwupdate"))


def rows(build, project):
    """Without samples: a size has no spread. A peer that is not installed has no row."""
    shared = stripped(shared_program(project))
    linked_in = build / "src/fwupdate"
    libraries_here = own_libraries(linked_in, CURL)
    result = []
    for peer in ("rauc", "swupdate"):
        program = pathlib.Path("/usr/bin", peer)
        if not program.exists():
            continue
        theirs = stripped(program)
        result.append(Row("stripped program", "bytes", [shared], [theirs], peer, "<= 0.1"))
        result.append(Row("stripped program with the stand-ins linked in", "bytes",
                          [stripped(linked_in)], [theirs], peer))
        result.append(Row("program and the libraries that it alone brings", "bytes",
                          [shared + libraries_here], [theirs + own_libraries(program, CURL)],
                          peer))
    return result
