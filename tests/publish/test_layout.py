# SPDX-License-Identifier: ISC
"""The maker's programs as they are installed: by pipx and by make, beside the source tree."""
import importlib
import subprocess
import tomllib

from conftest import project

PUBLISH = project / "publish"


def test_pyproject_names_what_there_is():
    found = tomllib.loads((PUBLISH / "pyproject.toml").read_text())
    packages = {".".join(p.parent.relative_to(PUBLISH).parts) for p in PUBLISH.rglob("__init__.py")}
    assert set(found["tool"]["setuptools"]["packages"]) == packages
    scripts = found["project"]["scripts"]
    assert set(scripts) == {p.name for p in PUBLISH.glob("fwupdate-*")}
    for target in scripts.values():
        module, function = target.split(":")
        assert callable(getattr(importlib.import_module(module), function))


def test_installed_programs_run_without_the_source_tree(tmp_path):
    subprocess.run(["make", "-s", "-C", PUBLISH, "install", "PREFIX=/usr", f"DESTDIR={tmp_path}"], check=True)
    for program in ("fwupdate-publish", "fwupdate-fleet"):
        result = subprocess.run([tmp_path / "usr/bin" / program, "--help"], cwd="/", capture_output=True, text=True)
        assert result.returncode == 0 and program in result.stdout, result.stderr
        assert (tmp_path / f"usr/share/man/man1/{program}.1").is_file()
