# SPDX-License-Identifier: ISC
"""What pipx installs; tests/program has what make installs."""
import importlib
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
