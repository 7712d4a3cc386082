# SPDX-License-Identifier: ISC
"""The routers and their rollouts."""
import concurrent.futures
import contextlib
import hashlib
import os
import random

from make_images import uimage

from fleet_parts.server import FleetRouter, UpdateServer
from fleet_parts.shares import reached, serials

STEPS = (10, 50, 100)
IMAGE_SIZE = 1 << 20


class Fleet:
    def __init__(self, server, routers):
        self.server = server
        self.routers = routers

    def ask_all(self):
        """Every router does its nightly update: {serial: (code, checksum)}."""
        with concurrent.futures.ThreadPoolExecutor(2 * os.cpu_count()) as pool:
            results = pool.map(lambda router: router.update(), self.routers)
            return {router.serial: result for router, result in zip(self.routers, results)}


def image(server, build):
    content = uimage(random.Random(build).randbytes(IMAGE_SIZE))
    path = server.folder / f"image-{build}.bin"
    path.write_bytes(content)
    return path, hashlib.sha256(content).hexdigest()


def good_rollout(fleet, say):
    """10, 50, 100 percent: each step reaches exactly the routers that it should."""
    path, checksum = image(fleet.server, "174200000")
    fleet.server.publish("candidate", path, "174200000")
    have = set()
    for percent in STEPS:
        fleet.server.rollout(percent)
        results = fleet.ask_all()
        now = {serial for serial, (_, found) in results.items() if found == checksum}
        expected = {router.serial for router in fleet.routers if reached(router.serial, percent)} - have
        assert now == expected, f"{percent} percent: {sorted(now ^ expected)} differ"
        assert all(code == "0" for code, _ in results.values()), results
        have |= now
        say(f"{percent:3} percent: {len(now)} routers installed it, {len(have)} of {len(fleet.routers)} have it,"
            " as the hash says.")
    assert len(have) == len(fleet.routers)


def bad_rollout(fleet, say):
    """An image that was damaged on the server: the first step finds it, and is the last."""
    path, _ = image(fleet.server, "174300000")
    fleet.server.publish("candidate", path, "174300000")
    served = fleet.server.server_root / "model-x/candidate/releases/174300000" / path.name
    content = bytearray(served.read_bytes())
    content[IMAGE_SIZE // 2] ^= 1
    served.write_bytes(content)
    fleet.server.rollout(STEPS[0])
    before = len(fleet.server.log())
    results = fleet.ask_all()
    refused = {serial for serial, (code, _) in results.items() if code == "3"}
    assert refused == {r.serial for r in fleet.routers if reached(r.serial, STEPS[0])}, results
    assert not any(checksum for _, checksum in results.values()), results
    log = fleet.server.log()[before:]
    downloads = [line for line in log if line["uri"].endswith(path.name)]
    # What whoever watches the log sees: downloads, and nobody who runs the new build.
    assert len(downloads) == 2 * len(refused), downloads
    assert not [line for line in log if line["fw"] == "174300000"]
    say(f" {STEPS[0]} percent of a bad image: {len(refused)} routers downloaded it twice and refused it, none installed it.")

    fleet.server.rollout(0)
    before = len(fleet.server.log())
    results = fleet.ask_all()
    assert all(result == ("0", None) for result in results.values()), results
    assert not [line for line in fleet.server.log()[before:] if line["uri"].endswith(path.name)]
    assert not any(router.installed() for router in fleet.routers)
    say("  0 percent: the rollout is paused, and nobody asks for the image any more.")


def run(folder, count):
    with contextlib.ExitStack() as stack:
        server = stack.enter_context(UpdateServer(folder))
        path, _ = image(server, "171000000")
        server.publish("stable", path, "171000000")
        server.rollout(0)
        routers = [stack.enter_context(FleetRouter(server, serial)) for serial in serials(count, STEPS)]
        fleet = Fleet(server, routers)
        print(f"{len(routers)} routers, each with a daemon of its own, and one nginx.", flush=True)

        def say(text):
            print(text, flush=True)

        good_rollout(fleet, say)
        bad_rollout(fleet, say)
    return 0
