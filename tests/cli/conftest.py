# SPDX-License-Identifier: ISC
"""The router of tests that look at running updates; others bring their own."""
import pytest

from simulated_router import Router, make_server


@pytest.fixture(scope="session")
def slow_server(tmp_path_factory):
    return make_server(tmp_path_factory.mktemp("server"), 2_500_000)


@pytest.fixture
def router(slow_server):
    """A download takes five seconds."""
    with Router("--server-rate", "500000", server_root=slow_server) as router:
        yield router
