# SPDX-License-Identifier: ISC
"""What package/fwupdate says and installs, by its own Makefile."""
import re
import subprocess

import pytest

from packages import install_package, make
from simulated_router import BUILD, PROJECT, Router

PACKAGE = "fwupdate"
INSTALLED = {
    "etc/config/fwupdate": 0o600,
    "etc/init.d/fwupdate": 0o755,
    "etc/uci-defaults/90-fwupdate": 0o755,
    "usr/bin/fwupdate-cli": 0o755,
    "usr/sbin/fwupdate": 0o755,
} | {f"usr/share/fwupdate-cli/{part.name}": 0o644 for part in (PROJECT / "cli/lib").glob("*.sh")}
URL = "http://update.example.com/update.xml"


def test_installs_these_files_and_no_others(root):
    files = {str(path.relative_to(root)): path.stat().st_mode & 0o777
             for path in root.rglob("*") if not path.is_dir()}
    assert files == INSTALLED


def test_the_oldest_build_system_has_the_cmake_that_it_takes():
    """22.03 has 3.22.3."""
    asked = re.search(r"cmake_minimum_required\(VERSION ([\d.]+)", (PROJECT / "CMakeLists.txt").read_text())[1]
    assert tuple(map(int, asked.split(".")[:2])) <= (3, 22)


def test_grants_nobody_anything(root):
    """The bus lets root in. Who else needs the daemon brings a list: the page's package does."""
    assert not list(root.rglob("*acl.d*"))


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
    assert {"+libubox", "+libubus", "+libcurl", "+mxml", "+zlib"} <= set(depends)
    # The programs that it and fwupdate-cli call, where they are packages of their own.
    assert {"+ubus", "+uci", "+jsonfilter", "+fwtool", "+uboot-envtools"} <= set(depends)


def test_builds_src_alone_with_the_configured_url(fields):
    options = fields["CMAKE_OPTIONS"]
    assert options.split() == ["-DBUILD_TESTING=OFF", "-DFWUPDATE_LIBRARIES=system",
                               "-DFWUPDATE_HARDENING=ON", "-DFWUPDATE_SMALL=ON",
                               "-DCMAKE_INTERPROCEDURAL_OPTIMIZATION=ON", f'-DFWUPDATE_MANIFEST_URL="{URL}"']
    config = fields["fwupdate.config"]
    assert config.startswith("config FWUPDATE_MANIFEST_URL string ")
    assert f'default "{URL}"' in config and "depends on PACKAGE_fwupdate" in config


def test_version_is_the_same_everywhere(fields):
    cmake = (PROJECT / "CMakeLists.txt").read_text()
    command = (PROJECT / "cli/fwupdate-cli").read_text()
    version = fields["PKG_VERSION"]
    assert f"project(fwupdate VERSION {version} " in cmake
    assert f"\nversion={version}\n" in command


def test_is_position_independent_by_the_build_systems_defaults(fields):
    """Its hardening is the build system's, which leaves this one out unless a package asks for it."""
    assert fields["PKG_ASLR_PIE_REGULAR"] == "1"


def test_every_entry_of_the_menu_rebuilds_the_package(fields):
    entries = set(re.findall(r"config (FWUPDATE_\w+)", fields["fwupdate.config"]))
    assert len(entries) == 2
    assert fields["PKG_CONFIG_DEPENDS"].split() == [f"CONFIG_{entry}" for entry in sorted(entries, reverse=True)]


def test_without_sources_the_build_says_what_is_missing(tmp_path):
    made = make("fwupdate", tmp_path, "FWUPDATE_SOURCE=/nowhere")
    assert made.returncode != 0
    assert "no sources in /nowhere" in made.stderr


@pytest.mark.parametrize("name", ["libmxml", "miniz", "libc"])
def test_a_name_that_no_feed_has_is_refused(tmp_path, name):
    """A real build system warns, and leaves the package out."""
    source = (PROJECT / "package/fwupdate/Makefile").read_text()
    package = tmp_path / "package/fwupdate"
    package.mkdir(parents=True)
    (package / "Makefile").write_text(source.replace("+mxml", f"+{name}"))
    made = make(package, tmp_path, goal="fields")
    assert made.returncode != 0
    assert f"fwupdate depends on what no feed has: {name}" in made.stderr


@pytest.mark.parametrize("url", ["http://h/o'clock", "http://h/a|b", "http://h/$b", "http://h/$(b)", "http://h/a`b`",
                                 "http://h/a b", "http://h/#a", r"http://h/a\b", r"http://h/a\"b", "http://h/a;b",
                                 "http://h/\u00e9"])
def test_a_url_that_would_not_arrive_whole_is_refused(tmp_path, url):
    made = make("fwupdate", tmp_path, **{"CONFIG_FWUPDATE_MANIFEST_URL": f'"{url}"'})
    assert made.returncode != 0
    assert "FWUPDATE_MANIFEST_URL may hold letters, digits and -._~:/?&=%+,@[] only" in made.stderr
    assert "make menuconfig" in made.stderr
    assert not (tmp_path / "fwupdate").exists()


def test_former_urls_are_looked_at_too_and_may_be_several(tmp_path):
    option = "CONFIG_FWUPDATE_FORMER_MANIFEST_URLS"
    refused = make("fwupdate", tmp_path, **{option: '"http://h/a http://h/a|b"'})
    assert refused.returncode != 0 and "FWUPDATE_FORMER_MANIFEST_URLS may hold" in refused.stderr
    assert make("fwupdate", tmp_path, **{option: '"http://h/a http://h/b"'}).returncode == 0


def test_scripts_pass_shellcheck():
    files = sorted((PROJECT / "package").rglob("*"))
    scripts = [path for path in files if path.is_file() and
               path.read_bytes().startswith(b"#!")]
    assert {path.name for path in scripts} >= {"fwupdate.init", "fwupdate.defaults", "test.sh"}
    subprocess.run(["shellcheck", *scripts], check=True)


URL_WITH_SIGNS = "http://our.example/a?b=1&c=%20,@[::1]"


@pytest.fixture
def router(tmp_path):
    make("fwupdate", tmp_path / "stage", check=True, CONFIG_FWUPDATE_MANIFEST_URL=f'"{URL_WITH_SIGNS}"',
         CONFIG_FWUPDATE_FORMER_MANIFEST_URLS='"http://old.example/a http://older.example/?b=1&c=2"')
    root = tmp_path / "stage/fwupdate"
    with Router("--no-daemon", "--bind", root, "--no-server") as router:
        router.must(f"cp -R {root}/. /")
        yield router


OPTION = "system.@system[0].fwupdate_xml_url"
# As the boot does it: read by another shell, which then deletes the script.
DEFAULTS = "( cd /etc/uci-defaults && . ./90-fwupdate ) && rm /etc/uci-defaults/90-fwupdate"


def test_defaults_write_no_url(router):
    """It would hide the URL of every later firmware."""
    router.run("cp /etc/config/system /tmp/before")
    assert router.run(DEFAULTS).status == 0
    assert router.run("cmp /etc/config/system /tmp/before").status == 0


@pytest.mark.parametrize("url", [URL_WITH_SIGNS, "http://old.example/a", "http://older.example/?b=1&c=2"])
def test_defaults_take_out_what_an_earlier_version_wrote(router, url):
    router.must(f"uci set '{OPTION}={url}'")
    assert router.run(DEFAULTS).status == 0
    assert router.run(f"uci get {OPTION}").status == 1
    assert router.run("uci get system.@system[0].hostname").output == "router\n"


@pytest.mark.parametrize("url", ["http://mine.example/", "http://old.example/ab", "http://old.example", "*"])
def test_defaults_keep_what_somebody_has_set(router, url):
    router.must(f"uci set '{OPTION}={url}'; cp /etc/config/system /tmp/before")
    assert router.run(DEFAULTS).status == 0
    assert router.run("cmp /etc/config/system /tmp/before").status == 0


def test_the_feeds_own_test_passes_and_can_fail(router, fields):
    script = PROJECT / "package/fwupdate/test.sh"
    assert router.run(f"sh {script} fwupdate {fields['PKG_VERSION']}").status == 0
    assert router.run(f"sh {script} fwupdate 99").status != 0
    assert router.run(f"rm /etc/init.d/fwupdate; sh {script} fwupdate "
                      f"{fields['PKG_VERSION']}").status != 0
