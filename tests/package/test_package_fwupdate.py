# SPDX-License-Identifier: ISC
"""What package/fwupdate says and installs, by its own Makefile."""
import json
import re
import subprocess

import jsonschema
import pytest

from packages import BUS_SCHEMA, SESSION_SCHEMA, install_package
from simulated_router import BUILD, PROJECT, Router

PACKAGE = "fwupdate"
INSTALLED = {
    "etc/config/fwupdate": 0o600,
    "etc/init.d/fwupdate": 0o755,
    "etc/uci-defaults/90-fwupdate": 0o755,
    "usr/bin/fwupdate-cli": 0o755,
    "usr/sbin/fwupdate": 0o755,
    "usr/share/acl.d/fwupdate.json": 0o644,
    "usr/share/fwupdate-cli/bus.sh": 0o644,
    "usr/share/fwupdate-cli/hints.sh": 0o644,
    "usr/share/fwupdate-cli/job.sh": 0o644,
    "usr/share/fwupdate-cli/screen.sh": 0o644,
    "usr/share/fwupdate-cli/update.sh": 0o644,
    "usr/share/fwupdate-cli/watch.sh": 0o644,
    "usr/share/rpcd/acl.d/fwupdate.json": 0o644,
}
URL = "http://update.example.com/update.xml"


def test_installs_these_files_and_no_others(root):
    files = {str(path.relative_to(root)): path.stat().st_mode & 0o777
             for path in root.rglob("*") if not path.is_dir()}
    assert files == INSTALLED


def test_installs_what_the_build_made(root, tmp_path):
    subprocess.run(["cmake", "--install", BUILD, "--prefix", tmp_path], check=True,
                   stdout=subprocess.DEVNULL)
    for name in ("sbin/fwupdate", "bin/fwupdate-cli", "share/fwupdate-cli/job.sh"):
        assert (root / "usr" / name).read_bytes() == (tmp_path / name).read_bytes()


def test_readme_lists_what_is_installed():
    readme = (PROJECT / "package/README.md").read_text()
    for name in INSTALLED:
        name = re.sub(r"(fwupdate-cli/)\w+\.sh", r"\1*.sh", name)
        assert f"`/{name}`" in readme


def test_fields_follow_the_feeds_conventions(fields):
    assert fields["PKG_LICENSE"] == "ISC"
    assert (PROJECT / fields["PKG_LICENSE_FILES"]).is_file()
    assert fields["PKG_RELEASE"].isdigit()
    assert fields["PKG_MAINTAINER"]
    for name in ("SECTION", "CATEGORY", "TITLE", "description"):
        assert fields[f"fwupdate.{name}"], name
    assert len(fields["fwupdate.TITLE"]) <= 60
    assert fields["fwupdate.conffiles"] == "/etc/config/fwupdate"
    makefile = (PROJECT / "package/fwupdate/Makefile").read_text()
    assert makefile.startswith("# SPDX-License-Identifier: ")
    assert "include $(INCLUDE_DIR)/cmake.mk" in makefile


def test_depends_on_what_the_daemon_needs_but_no_cxx_runtime(fields):
    depends = fields["fwupdate.DEPENDS"].split()
    assert "libstdcpp" not in fields["fwupdate.DEPENDS"]
    assert all(re.fullmatch(r"\+[a-z0-9-]+", name) for name in depends)
    assert {"+libubox", "+libubus", "+libcurl", "+libmxml", "+miniz"} <= set(depends)
    # The programs that it and fwupdate-cli call, where they are packages of their own.
    assert {"+ubus", "+uci", "+jsonfilter", "+fwtool", "+uboot-envtools"} <= set(depends)


def test_builds_src_alone_with_the_configured_url(fields):
    options = fields["CMAKE_OPTIONS"]
    assert options.split() == ["-DBUILD_TESTING=OFF", "-DFWUPDATE_LIBRARIES=system",
                               f'-DFWUPDATE_MANIFEST_URL="{URL}"']
    assert fields["PKG_CONFIG_DEPENDS"] == "CONFIG_FWUPDATE_MANIFEST_URL"
    config = fields["fwupdate.config"]
    assert config.startswith("config FWUPDATE_MANIFEST_URL string ")
    assert f'default "{URL}"' in config and "depends on PACKAGE_fwupdate" in config


def test_version_is_the_same_everywhere(fields):
    cmake = (PROJECT / "CMakeLists.txt").read_text()
    command = (PROJECT / "cli/fwupdate-cli").read_text()
    version = fields["PKG_VERSION"]
    assert f"project(fwupdate VERSION {version} " in cmake
    assert f"\nversion={version}\n" in command


def test_without_sources_the_build_says_what_is_missing(tmp_path):
    make = subprocess.run(
        ["make", "-s", "-C", PROJECT / "package/fwupdate", f"TOPDIR={PROJECT}/testbed/feed",
         f"STAGE={tmp_path}", f"BUILD={BUILD}", "FWUPDATE_SOURCE=/nowhere"],
        capture_output=True, text=True, check=False)
    assert make.returncode != 0
    assert "no sources in /nowhere" in make.stderr


def test_bus_access_list(root):
    access = json.loads((root / "usr/share/acl.d/fwupdate.json").read_text())
    jsonschema.validate(access, BUS_SCHEMA)
    assert access == {"user": "uhttpd", "access": {
        "fwupdate": {"methods": ["check", "state", "update", "test"]}}}


def test_session_access_list(root):
    groups = json.loads((root / "usr/share/rpcd/acl.d/fwupdate.json").read_text())
    jsonschema.validate(groups, SESSION_SCHEMA)
    assert groups["fwupdate"]["read"]["ubus"] == {"fwupdate": ["check", "state"]}
    assert groups["fwupdate"]["write"]["ubus"] == {"fwupdate": ["update", "test"]}


@pytest.mark.parametrize("text", ['{"acces": {}}', '{"user": "x"}', '{"user": "x", "access": []}'])
def test_the_schema_refuses_what_the_broker_would_not_read(text):
    with pytest.raises(jsonschema.ValidationError):
        jsonschema.validate(json.loads(text), BUS_SCHEMA)


def test_scripts_pass_shellcheck():
    files = sorted((PROJECT / "package").rglob("*"))
    scripts = [path for path in files if path.is_file() and
               path.read_bytes().startswith(b"#!")]
    assert {path.name for path in scripts} >= {"fwupdate.init", "fwupdate.defaults", "test.sh"}
    subprocess.run(["shellcheck", *scripts], check=True)


@pytest.fixture
def router(tmp_path):
    install_package("--url", "http://our.example/a?b=1&c=2", "fwupdate", tmp_path)
    with Router("--no-daemon", "--bind", tmp_path, "--no-server") as router:
        router.must(f"cp -R {tmp_path}/. /")
        yield router


OPTION = "system.@system[0].fwupdate_xml_url"


def test_defaults_write_the_url_that_was_built_in(router):
    assert router.run(f"uci get {OPTION}").status == 1
    assert router.run("sh /etc/uci-defaults/90-fwupdate").status == 0
    assert router.run(f"uci get {OPTION}").output == "http://our.example/a?b=1&c=2\n"
    assert router.run("uci get system.@system[0].hostname").output == "router\n"


def test_defaults_never_overwrite_a_configured_url(router):
    router.run(f"uci set {OPTION}=http://mine.example/; cp /etc/config/system /tmp/before")
    assert router.run("sh /etc/uci-defaults/90-fwupdate").status == 0
    assert router.run("cmp /etc/config/system /tmp/before").status == 0


def test_defaults_do_nothing_when_no_url_was_built_in(router):
    router.run("sed -i \"s/^url=.*/url=''/\" /etc/uci-defaults/90-fwupdate")
    assert router.run("sh /etc/uci-defaults/90-fwupdate").status == 0
    assert router.run(f"uci get {OPTION}").status == 1


def test_the_feeds_own_test_passes_and_can_fail(router, fields):
    script = PROJECT / "package/fwupdate/test.sh"
    assert router.run(f"sh {script} fwupdate {fields['PKG_VERSION']}").status == 0
    assert router.run(f"sh {script} fwupdate 99").status != 0
    assert router.run(f"rm /etc/init.d/fwupdate; sh {script} fwupdate "
                      f"{fields['PKG_VERSION']}").status != 0
