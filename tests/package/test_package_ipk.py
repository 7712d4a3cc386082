# SPDX-License-Identifier: ISC
"""The files that a package manager gets: what is in them is what the Makefile installs."""
import io
import tarfile

import pytest

from packages import install_package


def members(archive):
    """{name: (mode, bytes)} of a compressed archive's files."""
    with tarfile.open(fileobj=io.BytesIO(archive)) as tar:
        assert all((member.uid, member.gid) == (0, 0) for member in tar)
        return {member.name.removeprefix("./"): (member.mode, tar.extractfile(member).read())
                for member in tar if member.isfile()}


def make_ipk(package, folder):
    """The name of the package file, and its parts: control and data."""
    install_package("--ipk", package, folder)
    [file] = folder.glob("*.ipk")
    parts = members(file.read_bytes())
    assert parts["debian-binary"][1] == b"2.0\n"
    return file.name, members(parts["control.tar.gz"][1]), members(parts["data.tar.gz"][1])


@pytest.mark.parametrize("package", ["fwupdate", "fwupdate-guard", "fwupdate-web", "luci-app-fwupdate"])
def test_data_is_what_is_installed(package, tmp_path):
    plain = tmp_path / "plain"
    install_package(package, plain)
    _, _, data = make_ipk(package, tmp_path / "ipk")
    assert data == {str(path.relative_to(plain)): (path.stat().st_mode & 0o777, path.read_bytes())
                    for path in plain.rglob("*") if path.is_file()}


def test_control_names_the_package_and_its_settings(tmp_path):
    name, control, _ = make_ipk("fwupdate", tmp_path)
    assert name.startswith("fwupdate_0.1.0-1_")
    said = control["control"][1].decode()
    assert said.startswith("Package: fwupdate\nVersion: 0.1.0-1\nDepends: libubox, libubus, libcurl, ")
    assert control["conffiles"][1] == b"/etc/config/fwupdate\n"
    assert set(control) == {"control", "conffiles"}


def test_scripts_are_programs(tmp_path):
    name, control, _ = make_ipk("fwupdate-web", tmp_path)
    assert name == "fwupdate-web_0.1.0-1_all.ipk"
    assert set(control) == {"control", "postinst", "postrm"}
    for script in ("postinst", "postrm"):
        mode, text = control[script]
        assert (mode, text[:10]) == (0o755, b"#!/bin/sh\n")
