# SPDX-License-Identifier: ISC
"""Publish, serve with nginx, and let the real daemon check, update and install."""
import hashlib

import pytest
from conftest import Publisher, project
from make_images import uimage, with_metadata
from simulated_router import Router

NOTES = "Faster start & <fewer> surprises.\n\"Zweite\" Zeile \u2014 \u20ac."


@pytest.fixture
def served(router, tmp_path):
    """A publisher whose folder is the one that the router's update server serves."""
    publisher = Publisher(tmp_path)
    publisher.out = router.server_root
    return publisher


def publish(served, build, content, **options):
    image = served.folder / f"image-{build}.bin"
    image.write_bytes(content)
    result = served.publish(image=image, build=build, url="http://update.example.com/", **options)
    assert result.returncode == 0, result.text
    return hashlib.sha256(content).hexdigest()


def install(router):
    router.run("rm -f /var/log/sysupgrade")
    reply = router.call("update")
    assert reply["error_code"] == "0", reply
    return router.wait_for("cat /var/log/sysupgrade")


def set_builddate(router, build):
    router.run(f"sed -i 's/\"builddate\": .*/\"builddate\": \"{build}\"/' /etc/router/board.json")


@pytest.mark.parametrize("build, content", [
    ("174200000", uimage(b"kernel" * 5000)),
    ("174200001", with_metadata(b"squashfs" * 5000, customid="77")),
    ("174200002", with_metadata(uimage(b"kernel" * 5000, load=1, entry=1))),
], ids=["uimage", "metadata", "uimage with metadata"])
def test_published_release_is_installed(router, served, build, content):
    checksum = publish(served, build, content, version=f"v{build}", notes=served.notes(NOTES))
    assert router.call("check") == {
        "version": f"v{build}", "buildtime": build, "releasenotes": NOTES, "force": "0",
        "need_update": "1", "error_code": "0", "error_message": "No Error"}
    assert f"sha256: {checksum}" in install(router)


def test_rollback_is_installed_over_a_newer_build(router, served):
    old = publish(served, "174300000", uimage(b"old" * 100), version="old")
    publish(served, "174300001", uimage(b"new" * 100), version="new")
    set_builddate(router, "174300001")
    assert router.call("check")["need_update"] == "0"
    result = served.run("rollback", "--out", served.out)
    assert result.returncode == 0, result.text
    reply = router.call("check")
    assert (reply["version"], reply["force"], reply["need_update"]) == ("old", "1", "1")
    assert f"sha256: {old}" in install(router)
    set_builddate(router, "174300000")
    assert router.call("check")["need_update"] == "0"
    set_builddate(router, "171000000")


def test_notes_of_the_version_before_are_not_kept(router, served):
    publish(served, "174400000", uimage(b"a"), notes=served.notes("notes of the first"))
    assert router.call("check")["releasenotes"] == "notes of the first"
    publish(served, "174400001", uimage(b"b"))
    assert router.call("check")["releasenotes"] == " "


def test_verify_passes_against_the_servers_nginx(tmp_path):
    """From inside of the router, where the update server is."""
    publisher = Publisher(tmp_path)
    assert publisher.publish().returncode == 0
    with Router("--no-daemon", server_root=publisher.out) as router:
        text = router.must("LD_LIBRARY_PATH=/host/usr/lib PYTHONHOME=/host/usr /host/usr/bin/python3 "
                           f"{project}/publish/fwupdate-publish --verify http://192.0.2.1/update.xml --out /srv/update")
    assert "the image, 664 bytes, is as in the folder" in text
