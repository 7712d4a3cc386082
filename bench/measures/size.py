# SPDX-License-Identifier: ISC
"""Bytes on flash: the stripped program, and what an updater brings that a router lacks."""
import pathlib
import re
import subprocess
import tempfile

from measures.samples import Row

# What a router of this family has anyway, by the beginning of the library's name.
AT_HOME = ("libc.so", "libm.so", "ld-linux", "linux-vdso", "libcurl", "libubox", "libubus",
           "libblobmsg", "libjson-c", "libz.so", "libssl", "libcrypto", "libmxml", "libminiz",
           "libgcc_s", "libpthread", "libdl.so")


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


def rows(build, _project):
    """Without samples: a size has no spread. A peer that is not installed has no row."""
    ours = stripped(build / "src/fwupdate")
    curl = "/usr/bin/curl"
    result = []
    for peer in ("rauc", "swupdate"):
        program = pathlib.Path("/usr/bin", peer)
        if not program.exists():
            continue
        result.append(Row("stripped program", "bytes", [ours], [stripped(program)], peer,
                          "<= 0.1" if peer == "rauc" else ""))
        result.append(Row("program and the libraries that it alone brings", "bytes",
                          [ours + own_libraries(build / "src/fwupdate", curl)],
                          [stripped(program) + own_libraries(program, curl)], peer))
    return result
