# SPDX-License-Identifier: ISC
"""Signed images: what is signed, with which build, and which images are refused."""
import base64
import shutil
import subprocess

import pytest
from fwupdate_maker.publisher import fwtool, signing
from make_images import chunk, uimage, with_metadata

SIGNIFY = shutil.which("signify-openbsd")
EQUAL = uimage(b"kernel" * 50, load=1, entry=1)


@pytest.fixture
def maker(publisher):
    """A publisher with a key pair and an image that can carry a signature."""
    assert publisher.run("keys", "make", "release").returncode == 0
    publisher.image.write_bytes(with_metadata(b"squashfs" * 50, customid="77"))
    return publisher


def published(maker, build="174200000"):
    return (maker.out / f"releases/{build}/firmware.bin").read_bytes()


def verified(maker, content, key="release.pub"):
    """Whether Debian's signify finds the key's signature over all that stands before it."""
    signature = fwtool.last_chunks(content)[0]
    (maker.folder / "message").write_bytes(content[:signature.start])
    (maker.folder / "message.sig").write_bytes(signature.data)
    return subprocess.run([SIGNIFY, "-V", "-p", key, "-m", "message"], cwd=maker.folder, capture_output=True).returncode == 0


@pytest.mark.parametrize("image", [with_metadata(b"squashfs" * 50, customid="77"), with_metadata(EQUAL),
                                   chunk(with_metadata(b"squashfs"), b"an older signature", kind=0)],
                         ids=["metadata", "uimage with metadata", "signed before"])
def test_image_is_signed_with_its_build_and_a_router_takes_it(maker, router, image):
    maker.image.write_bytes(image)
    result = maker.publish(sign="release.sec", key="release.pub")
    assert result.returncode == 0, result.text
    content = published(maker)
    metadata = fwtool.read_metadata("", content)
    assert metadata.pop("fwupdate_build") == "174200000"
    assert metadata == fwtool.read_metadata("", image)
    assert verified(maker, content)
    number = base64.b64decode((maker.folder / "release.pub").read_text().splitlines()[1])[2:10].hex()
    assert f"signed by the key {number}" in result.text
    (router.folder / "image").write_bytes(content)
    assert router.call("test", file=str(router.folder / "image"))["check_code"] == "0"


def test_plain_image_cannot_be_signed(maker):
    maker.image.write_bytes(uimage(b"kernel"))
    for result in (maker.publish(sign="release.sec"), maker.publish(sign="release.sec", dry_run=True),
                   maker.run("sign", maker.image, "--build", "1", "--sign", "release.sec", "--output", "signed.bin")):
        assert result.returncode == 2 and "cannot carry a signature" in result.text, result.text
    assert not maker.out.exists() and not (maker.folder / "signed.bin").exists()


def test_unsigned_image_after_a_signed_one_is_refused(maker):
    assert maker.publish(build="1", sign="release.sec").returncode == 0
    before = maker.files()
    result = maker.publish(build="2")
    assert result.returncode == 2 and "is not signed, and the one that the folder" in result.text
    assert maker.files() == before
    assert maker.publish(build="2", sign="release.sec").returncode == 0


def test_image_is_signed_on_one_machine_and_published_on_another(maker):
    words = ("sign", maker.image, "--build", "174200000", "--sign", "release.sec", "--output", "signed.bin")
    assert maker.run(*words, "--key", "release.pub").returncode == 0
    assert maker.run(*words).returncode == 2
    (maker.folder / "release.sec").unlink()
    result = maker.publish(image="signed.bin", build="174200001")
    assert result.returncode == 2 and "give the build 174200000, --build gives 174200001" in result.text
    assert maker.publish(image="signed.bin", key="release.pub").returncode == 0
    content = (maker.out / "releases/174200000/signed.bin").read_bytes()
    assert content == (maker.folder / "signed.bin").read_bytes() and verified(maker, content)


def flipped(content):
    return content[:5] + bytes([content[5] ^ 1]) + content[6:]


def resealed(content):
    """The metadata replaced after signing, with trailers that are right again."""
    signature = fwtool.last_chunks(content)[0]
    changed = content[:signature.start].replace(b'"77"', b'"78"')
    body = changed[:-16]
    start = len(body) - int.from_bytes(changed[-4:], "big") + 16
    return chunk(chunk(body[:start], body[start + 8:]), signature.data, kind=0)


@pytest.mark.parametrize("spoil, reason", [
    (flipped, "CRC of its fwtool trailer"), (resealed, "is not by the key"),
    (lambda content: content[:fwtool.last_chunks(content)[0].start], "is not signed"),
    (lambda content: chunk(content[:fwtool.last_chunks(content)[0].start], b"x\n", kind=0), "is not signed")],
    ids=["one bit", "metadata", "cut off", "no signature in it"])
def test_key_is_checked(maker, spoil, reason):
    words = ("sign", maker.image, "--build", "174200000", "--sign", "release.sec", "--output", "signed.bin")
    assert maker.run(*words).returncode == 0
    content = (maker.folder / "signed.bin").read_bytes()
    assert maker.publish(image="signed.bin", key="release.pub", dry_run=True).returncode == 0
    (maker.folder / "signed.bin").write_bytes(spoil(content))
    result = maker.publish(image="signed.bin", key="release.pub")
    assert result.returncode == 2 and reason in result.text, result.text
    assert not maker.out.exists()


def test_other_keys_are_refused(maker):
    assert maker.run("keys", "make", "other").returncode == 0
    result = maker.publish(sign="other.sec", key="release.pub")
    assert result.returncode == 2 and "is not by the key" in result.text
    assert not list(maker.out.rglob("firmware.bin"))
    for option, value, reason in (("sign", "release.pub", "no secret key"), ("sign", "gone", "No such file"),
                                  ("key", "release.sec", "no public key")):
        result = maker.publish(**{"sign": "release.sec", option: value})
        assert result.returncode == 2 and reason in result.text, result.text


def test_keys_are_explained_made_and_shown(maker):
    text = maker.run("keys").text
    for what in ("Make one", "Replace one", "A key that is lost", "A key that was stolen", "plain U-Boot image"):
        assert what in text
    shown = maker.run("keys", "show", "release.pub").text
    number = signing.public_key_number(str(maker.folder / "release.pub"))
    assert shown == f"Key {number}: copy release.pub to /etc/fwupdate/keys/{number} on each router.\n"
    assert (maker.folder / "release.sec").stat().st_mode & 0o777 == 0o600
    assert "there already" in maker.run("keys", "make", "release").text


def test_without_a_tool_nothing_is_signed(maker, monkeypatch):
    monkeypatch.setenv("PATH", "/nonexistent")
    result = maker.run("publish", *maker.words(sign="release.sec")[1:])
    assert result.returncode == 2 and "neither usign nor signify" in result.text
    assert not maker.out.exists()
