# SPDX-License-Identifier: ISC
"""The package that a file of tests names as PACKAGE."""
import pytest

from packages import install_package


@pytest.fixture(scope="module")
def root(request, tmp_path_factory):
    """A folder that it is installed into."""
    folder = tmp_path_factory.mktemp("root")
    install_package(request.module.PACKAGE, folder)
    return folder


@pytest.fixture(scope="module")
def fields(request):
    """What its Makefile says about it."""
    lines = install_package("--fields", request.module.PACKAGE).splitlines()
    return dict(line.split("=", 1) for line in lines)
