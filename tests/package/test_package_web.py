# SPDX-License-Identifier: ISC
"""What package/fwupdate-web says and installs, by its own Makefile."""
import json
import re
import subprocess

import jsonschema

import pytest

from packages import BUS_SCHEMA, SESSION_SCHEMA, install_package, make
from simulated_router import PROJECT, Router

PACKAGE = "fwupdate-web"
SOURCES = {
    "usr/libexec/rpcd/fwupdate-job": ("cli/fwupdate-job", 0o755),
    "usr/share/acl.d/fwupdate-web.json": ("web/bus-acl.json", 0o644),
    "usr/share/rpcd/acl.d/fwupdate-web.json": ("web/session-acl.json", 0o644),
}


def page_files(folder):
    """What web/install writes, by name."""
    subprocess.run([PROJECT / "web/install", folder], check=True)
    return {path.name: path.read_bytes() for path in folder.iterdir()}


def test_installs_the_page_and_no_other_file(root, tmp_path):
    page = page_files(tmp_path / "page")
    files = [path for path in root.rglob("*") if path.is_file()]
    assert {str(path.relative_to(root)) for path in files} == set(SOURCES) | {f"www/fwupdate/{name}" for name in page}
    for path in files:
        if path.name in page:
            assert path.read_bytes() == page[path.name] and path.stat().st_mode & 0o777 == 0o644
            continue
        source, mode = SOURCES[str(path.relative_to(root))]
        assert path.read_bytes() == (PROJECT / source).read_bytes()
        assert path.stat().st_mode & 0o777 == mode


def test_simulated_router_has_the_same_files_at_the_same_places():
    init = (PROJECT / "testbed/rootfs/sbin/init").read_text()
    for name, (source, _) in SOURCES.items():
        folder = name.rsplit("/", 1)[0]
        assert f"$sources/{source}" in init and folder in init, name
    assert '"$sources/web/install" www/fwupdate' in init


def test_fields_follow_the_feeds_conventions(fields):
    assert fields["PKG_LICENSE"] == "ISC" and fields["PKG_RELEASE"].isdigit()
    assert fields["fwupdate-web.PKGARCH"] == "all", "there is nothing to compile in it"
    assert fields["fwupdate-web.DEPENDS"].split() == ["+fwupdate", "+rpcd", "+uhttpd", "+uhttpd-mod-ubus"]
    assert len(fields["fwupdate-web.TITLE"]) <= 60


def test_version_is_the_daemons(fields):
    cmake = (PROJECT / "CMakeLists.txt").read_text()
    assert f"project(fwupdate VERSION {fields['PKG_VERSION']} " in cmake


def test_daemons_package_comes_without_the_page(tmp_path):
    """A router without a web server does not get it."""
    install_package("fwupdate", tmp_path)
    assert not (tmp_path / "www").exists() and not (tmp_path / "usr/libexec").exists()


def test_access_lists_are_well_formed(root):
    jsonschema.validate(json.loads((root / "usr/share/acl.d/fwupdate-web.json").read_text()), BUS_SCHEMA)
    jsonschema.validate(json.loads((root / "usr/share/rpcd/acl.d/fwupdate-web.json").read_text()), SESSION_SCHEMA)


def test_access_lists_name_each_call_of_the_page_and_no_other(root):
    scripts = "".join(path.read_text() for path in (root / "www/fwupdate").glob("*.js"))
    called = set(re.findall(r'call\(sid, ?"([\w-]+)", ?"(\w+)"', scripts)) | {("session", "login"), ("session", "destroy")}
    called |= {("fwupdate-job", method) for method in re.findall(r'ask: ?"(\w+)"', scripts)} - {("fwupdate-job", "login"), ("fwupdate-job", "destroy")}
    rights = json.loads((root / "usr/share/rpcd/acl.d/fwupdate-web.json").read_text())["fwupdate-web"]
    granted = {(name, method) for kind in ("read", "write")
               for name, methods in rights[kind]["ubus"].items() for method in methods}
    assert granted == called - {("session", "login")}  # which everybody may call
    bus = json.loads((root / "usr/share/acl.d/fwupdate-web.json").read_text())["access"]
    assert {(name, method) for name, entry in bus.items() for method in entry["methods"]} == called


def test_only_looking_is_reading(root):
    rights = json.loads((root / "usr/share/rpcd/acl.d/fwupdate-web.json").read_text())["fwupdate-web"]
    assert rights["write"]["ubus"] == {"fwupdate-job": ["start", "test"]}


@pytest.mark.parametrize("text", ['{"acces": {}}', '{"user": "x"}', '{"user": "x", "access": []}'])
def test_the_schema_refuses_what_the_broker_would_not_read(text):
    with pytest.raises(jsonschema.ValidationError):
        jsonschema.validate(json.loads(text), BUS_SCHEMA)


@pytest.mark.parametrize("script", ["postinst", "postrm"])
def test_rpcd_reads_its_lists_anew_and_keeps_its_sessions(script, tmp_path):
    """Its `restart` would end every session. A script that runs while an image is built does nothing."""
    make(PACKAGE, tmp_path, check=True)
    with Router("--no-daemon", "--bind", tmp_path, "--no-server") as router:
        router.must("mkdir -p /etc/init.d; printf '#!/bin/sh\\necho \"$*\" >>/tmp/asked\\n' >/etc/init.d/rpcd; chmod +x /etc/init.d/rpcd")
        assert router.run(f"IPKG_INSTROOT=/image sh {tmp_path}/{PACKAGE}.{script}").status == 0
        assert router.run("cat /tmp/asked").status != 0
        assert router.run(f"sh {tmp_path}/{PACKAGE}.{script}").status == 0
        assert router.run("cat /tmp/asked").output == "reload\n"
