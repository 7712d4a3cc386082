# SPDX-License-Identifier: ISC
"""Who made an image: what is let in, and every way to be refused."""
import pytest

from conftest import GUARD, IMAGE
from signed_images import METADATA, SIGNATURE, chunk, metadata, signed, uimage, with_metadata

NOT_SIGNED = "not signed"
NOT_OURS = "not signed by a key of this router"


def test_a_signed_image_reaches_the_real_sysupgrade(guard):
    image = guard.good()
    assert guard.install(image) == 0
    assert guard.installed() == ["sysupgrade -F /tmp/fwupdate-guard/image"]
    assert guard.must("sed -n 's/^size: //p' /var/log/sysupgrade") == str(len(image))
    assert guard.variable("bootpart") == "firmware2"
    assert guard.reason() == ""


@pytest.mark.parametrize("size", [1, 65536 - 300, 65536, 65536 * 3, 1_000_003])
def test_every_size_is_verified_to_its_last_byte(guard, size):
    body = guard.body(size)
    image = signed(body + chunk(body, METADATA, metadata()), guard.keys["maker"])
    assert guard.install(image) == 0
    last = len(body) - 1
    guard.reset()
    guard.install(image[:last] + bytes([image[last] ^ 1]) + image[last + 1:])
    guard.assert_refused(NOT_OURS)


def test_a_uimage_is_signed_in_the_same_way(guard):
    image = with_metadata(uimage(guard.body()))
    assert guard.install(signed(image, guard.keys["maker"])) == 0
    guard.reset()
    guard.install(image)
    guard.assert_refused(NOT_SIGNED)


# --- What is no signature of ours. Each is a function of the guard's maker.

def forged(guard):
    """name -> (image, reason)"""
    maker, other = guard.keys["maker"], guard.keys["other"]
    image = with_metadata(guard.body())
    good = signed(image, maker)
    sign = maker.sign(image)
    replaced = good[:100_000] + metadata(build="999999999")
    tail = chunk(image, SIGNATURE, sign)
    return {
        "nothing at all": (guard.body(), NOT_SIGNED),
        "metadata only": (image, NOT_SIGNED),
        "another key": (signed(image, other), NOT_OURS),
        "the signature of another image": (image + chunk(image, SIGNATURE, maker.sign(image + b"x")), NOT_OURS),
        "one bit of the data": (bytes([good[0] ^ 1]) + good[1:], NOT_OURS),
        "one bit of the metadata": (good[:100_050] + bytes([good[100_050] ^ 1]) + good[100_051:], NOT_OURS),
        "other metadata": (replaced + chunk(replaced, SIGNATURE, sign), NOT_OURS),
        "the signature twice": (good + chunk(good, SIGNATURE, sign), NOT_OURS),
        "the signature twice, the first one counts": (signed(good, other), NOT_OURS),
        "a chunk of another kind behind it": (good + chunk(good, 7, b"more"), NOT_SIGNED),
        "metadata behind it": (good + chunk(good, METADATA, metadata(build="999999999")), NOT_SIGNED),
        "bytes behind it": (good + b"more", NOT_SIGNED),
        "the trailer cut": (good[:-1], NOT_SIGNED),
        "the signature cut": (image + chunk(image, SIGNATURE, sign[:-30]), NOT_OURS),
        "an empty signature": (image + chunk(image, SIGNATURE, b""), NOT_SIGNED),
        "a signature of zeros": (image + chunk(image, SIGNATURE, bytes(152)), NOT_OURS),
        "a signature that is too long": (image + chunk(image, SIGNATURE, sign + b"\n" * 1024), NOT_SIGNED),
        "a trailer of size 0": (image + tail[:-4] + bytes(4), NOT_SIGNED),
        "a trailer of size 15": (image + tail[:-4] + bytes([0, 0, 0, 15]), NOT_SIGNED),
        "a trailer of the size of the file": (image + tail[:-4] + (len(image + tail)).to_bytes(4, "big"), NOT_SIGNED),
        "a trailer of size 2^32-1": (image + tail[:-4] + b"\xff" * 4, NOT_SIGNED),
        "a trailer of size 2^31": (image + tail[:-4] + b"\x80\0\0\0", NOT_SIGNED),
        "a trailer whose checksum is wrong": (image + chunk(image, SIGNATURE, sign, checksum=1), "its metadata cannot be read"),
        "shorter than a trailer": (b"FWx0", NOT_SIGNED),
        "a trailer alone": (chunk(b"", SIGNATURE, b""), NOT_SIGNED),
        "a signature of nothing": (chunk(b"", SIGNATURE, maker.sign(b"")), NOT_SIGNED),
        "empty": (b"", NOT_SIGNED),
    }


def test_forged_images_are_refused(guard):
    for name, (image, reason) in forged(guard).items():
        print(name)
        guard.reset()
        assert guard.install(image) == 1
        guard.assert_refused(reason)


def test_a_key_that_was_taken_away_counts_no_more(guard):
    image = guard.good()
    guard.trust("other")
    guard.install(image)
    guard.assert_refused(NOT_OURS)


def test_of_two_keys_either_will_do(guard):
    guard.trust("maker", "other")
    assert guard.install(signed(with_metadata(guard.body()), guard.keys["other"])) == 0
    guard.must("rm -rf /tmp/fwupdate-guard /var/log/sysupgrade; fw_setenv upgrade_available 0")
    guard.restart()
    assert guard.install(guard.good()) == 0


@pytest.mark.parametrize("content", ["", "untrusted comment: x\\n", "untrusted comment: x\\n????\\n"])
def test_a_key_that_cannot_be_read_is_no_key(guard, content):
    key = f"/etc/fwupdate/keys/{guard.keys['maker'].fingerprint}"
    guard.must(f"printf '{content}' >{key}")
    guard.install(guard.good())
    guard.assert_refused(NOT_OURS)


# --- Whether signatures are asked for

@pytest.mark.parametrize("keys, value, let_in", [
    (True, None, False), (True, "off", True), (True, "required", False), (True, "of", False), (True, "0", False),
    (False, None, True), (False, "off", True), (False, "required", False), (False, "no", True),
])
def test_whether_signatures_are_required(guard, keys, value, let_in):
    if not keys:
        guard.must("rm -rf /etc/fwupdate/keys")
    if value:
        guard.must(f"uci set fwupdate.guard.signature={value}")
    assert (guard.install(guard.body()) == 0) == let_in
    if not let_in:
        guard.assert_refused(NOT_SIGNED)


@pytest.mark.parametrize("make", ["touch /etc/fwupdate/keys", "mkdir /etc/fwupdate/keys; touch /etc/fwupdate/keys/.hidden",
                                  "ln -s nowhere /etc/fwupdate/keys"])
def test_something_in_the_place_of_the_keys_switches_nothing_off(guard, make):
    guard.must(f"rm -rf /etc/fwupdate/keys; {make}")
    guard.install(guard.body())
    guard.assert_refused(NOT_SIGNED)


# --- Age

@pytest.mark.parametrize("build, reason", [
    ("170999999", "build 170999999 is older than 171000000, which runs"), ("171000000", None), ("171000001", None),
    ("0", "build 0 is older than 171000000, which runs"),
    (None, "signed, but without a build number"), ("", "signed, but without a build number"),
    ("new", "signed, but without a build number"), ("-1", "signed, but without a build number"),
    ("99999999999999999999", "signed, but without a build number"),
])
def test_an_older_firmware_is_refused(guard, build, reason):
    guard.install(guard.good(build=build))
    if reason:
        guard.assert_refused(reason)
        guard.reset()
        guard.must("uci set fwupdate.guard.older=1")
        assert guard.install(guard.good(build=build)) == 0
    assert len(guard.installed()) == 1


def test_without_knowing_what_runs_nothing_is_newer(guard):
    guard.must("sed -i '/builddate/d; s/\"r1234\",/\"r1234\"/' /etc/router/board.json")
    guard.must("rm -f /var/run/none")
    guard.install(guard.good())
    guard.assert_refused("the build that runs cannot be read")
