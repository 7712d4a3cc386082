# SPDX-License-Identifier: ISC
"""Checking a file that is on the router."""
import pytest

import answers
from browser import wait_until


@pytest.fixture
def ready(router, page):
    page.open_and_sign_in()
    page.find("file-part").click()
    return page


def check(page, path):
    page.type("file", path)
    page.click("file-button")


def put_image(router, path, change=""):
    router.run(f"cp /srv/update/firmware.bin {path}; {change or 'true'}")


def flip(path, offset):
    return f"printf x | dd of={path} bs=1 seek={offset} conv=notrunc 2>/dev/null"


def test_good_file(router, ready):
    put_image(router, "/tmp/good.bin")
    check(ready, "/tmp/good.bin")
    ready.await_text("file-result", "/tmp/good.bin: firmware for this router, and undamaged.")


def test_each_code_has_its_sentence(router, ready):
    put_image(router, "/tmp/header.bin", flip("/tmp/header.bin", 40))
    put_image(router, "/tmp/data.bin", flip("/tmp/data.bin", 9000))
    router.make_image(model="MODEL-Y", size=4096)
    put_image(router, "/tmp/other.bin")
    router.run(": >/tmp/empty.bin; echo text >/tmp/text.bin")
    for path, sentence in {
            "/tmp/nothing.bin": "The router says: ",
            "/tmp/empty.bin": "/tmp/empty.bin: cannot be read.",
            "/tmp/text.bin": "/tmp/text.bin: no firmware.",
            "/tmp/header.bin": "/tmp/header.bin: damaged firmware.",
            "/tmp/data.bin": "/tmp/data.bin: damaged firmware.",
            "/tmp/other.bin": "/tmp/other.bin: firmware for another model."}.items():
        check(ready, path)
        ready.await_text("file-result", sentence)


def test_no_check_during_an_update(router, ready):
    """It would overwrite what the update shows. The page has not seen the update yet: it is the router that refuses."""
    router.offer_slowly()
    router.run("ubus call fwupdate check")
    put_image(router, "/tmp/x")
    held = answers.Held("status")
    router.relay.fault = held
    router.run("""busybox setsid ubus -t 60 call fwupdate update '{"force":"1"}' >/dev/null 2>&1 &""")
    router.wait_for("ubus call fwupdate state | grep -q FIRMWARE_CONNECT")
    check(ready, "/tmp/x")
    ready.await_text("file-result", "An update is already running.")
    held.release()
