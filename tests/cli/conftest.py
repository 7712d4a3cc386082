# SPDX-License-Identifier: ISC
"""The routers of tests that look at running updates; others bring their own."""
import pytest

from simulated_router import HELD_URL, Router, make_server

SIZE = 3_000_000


@pytest.fixture(scope="session")
def held_server(tmp_path_factory):
    return make_server(tmp_path_factory.mktemp("held"), SIZE, url=HELD_URL)


@pytest.fixture(scope="session")
def server(tmp_path_factory):
    return make_server(tmp_path_factory.mktemp("server"), SIZE)


@pytest.fixture
def router(held_server):
    """A download stops at a quarter, until the test has seen enough and releases it."""
    with Router(server_root=held_server) as router:
        router.hold_downloads()
        yield router


@pytest.fixture
def fast_router(server):
    with Router(server_root=server) as router:
        yield router
