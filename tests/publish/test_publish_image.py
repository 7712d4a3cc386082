# SPDX-License-Identifier: ISC
"""Which images are published: what fwupdate-publish refuses, a router refuses too."""
import pytest
from make_images import chunk, uimage, with_metadata

PAYLOAD = bytes(range(256)) * 8
EQUAL = {"load": 0x80008000, "entry": 0x80008000}
FWTOOL_UIMAGE = with_metadata(uimage(PAYLOAD, **EQUAL))



def nested(levels):
    """A value of so many levels."""
    value = 1
    for _ in range(levels - 1):
        value = [value]
    return value


GOOD = {
    "uimage": uimage(PAYLOAD),
    "uimage in lower case": uimage(PAYLOAD, name=b"model-x"),
    "uimage with a custom ID": uimage(PAYLOAD, name=b"MODEL-X[77]"),
    "uimage without data": uimage(b""),
    "uimage, equal addresses and a long name": uimage(PAYLOAD, name=b"MODEL-X[" + b"7" * 21 + b"]", **EQUAL),
    "uimage vouched by fwtool": FWTOOL_UIMAGE,
    "uimage vouched by signed metadata": chunk(FWTOOL_UIMAGE, b"signature", kind=0),
    "metadata": with_metadata(PAYLOAD),
    "metadata with a custom ID": with_metadata(PAYLOAD, customid="77"),
    "metadata with a number as custom ID": with_metadata(PAYLOAD, customid=77),
    "metadata with an empty custom ID": with_metadata(PAYLOAD, customid=""),
    "metadata with a name instead of a list": with_metadata(PAYLOAD, devices="MODEL-X"),
    "metadata without a version": chunk(PAYLOAD, b'{"supported_devices": ["Model-X"]}'),
    "signed metadata": chunk(with_metadata(PAYLOAD), b"signature", kind=0),
    "second metadata count": with_metadata(with_metadata(PAYLOAD, devices=["A", "B"])),
    "metadata on equal words in the beginning": with_metadata(bytes(100)),
    "metadata on one byte": with_metadata(b"x"),
    "metadata as deep as a router reads": with_metadata(PAYLOAD, deep=nested(31)),
}

# The reason, and the image.
BAD = {
    "header CRC": ("CRC of its U-Boot header", uimage(PAYLOAD, header_crc=1)),
    "data CRC": ("CRC of its data", uimage(PAYLOAD, data_crc=1)),
    "changed byte": ("CRC of its data", uimage(PAYLOAD)[:-1] + b"!"),
    "cut": ("announces 2048 bytes of data, 2047 follow", uimage(PAYLOAD)[:-1]),
    "appended": ("3 bytes follow the data", uimage(PAYLOAD) + b"xyz"),
    "metadata on a CRC image": ("bytes follow the data", with_metadata(uimage(PAYLOAD))),
    "no metadata": ("load and entry address are equal, so a router asks fwtool instead of the data checksum,"
                    " and it has no metadata", uimage(PAYLOAD, **EQUAL)),
    "damaged before metadata": ("CRC of its data", FWTOOL_UIMAGE[:100] + b"!" + FWTOOL_UIMAGE[101:]),
    "wrong fwtool CRC": ("CRC of its fwtool trailer", chunk(uimage(PAYLOAD, **EQUAL), b"{}", crc=1)),
    "other model": ("made for the model 'OTHER'", uimage(PAYLOAD, name=b"OTHER")),
    "model and more": ("made for the model", uimage(PAYLOAD, name=b"MODEL-X ")),
    "half a bracket": ("made for the model", uimage(PAYLOAD, name=b"MODEL-X[77")),
    "long name": ("has 32 bytes", uimage(PAYLOAD, name=b"M" * 32)),
    "no name": ("no model name", uimage(PAYLOAD, name=b"")),
    "empty": ("it is empty", b""),
    "one byte": ("neither a U-Boot image", b"x"),
    "random": ("neither a U-Boot image", PAYLOAD),
    "zip": ("ZIP archive", b"PK\3\4" + PAYLOAD),
    "cut header": ("ends within its U-Boot header", uimage(PAYLOAD)[:40]),
    "several devices": ("name 2 supported devices", with_metadata(PAYLOAD, ["MODEL-X", "MODEL-Y"])),
    "no devices": ("name no supported device", with_metadata(PAYLOAD, [])),
    "devices missing": ("name no supported device", chunk(PAYLOAD, b'{"version": {}}')),
    "device with a blank": ("holds ' '", with_metadata(PAYLOAD, ["MODEL X"])),
    "device with a slash": ("holds '/'", with_metadata(PAYLOAD, ["MODEL/X"])),
    "long device": ("has 32 characters", with_metadata(PAYLOAD, ["M" * 32])),
    "other device": ("made for the model 'MODEL-Y'", with_metadata(PAYLOAD, ["MODEL-Y"])),
    "long with custom ID": ("characters; a router refuses more",
                            with_metadata(PAYLOAD, ["M" * 25], customid="7654321")),
    "metadata CRC": ("CRC of its fwtool trailer", chunk(PAYLOAD, b'{"supported_devices": ["MODEL-X"]}', crc=1)),
    "changed before metadata": ("CRC of its fwtool trailer", b"!" + with_metadata(PAYLOAD)[1:]),
    "trailer size": ("gives the size 10", chunk(PAYLOAD, b"{}", size=10)),
    "only a signature": ("neither a U-Boot image", chunk(PAYLOAD, b"signature", kind=0)),
    "no JSON": ("are no JSON", chunk(PAYLOAD, b"not JSON")),
    "metadata too deep": ("more than 32 values within values", with_metadata(PAYLOAD, deep=nested(32))),
    "metadata far too deep": ("more than 32 values within values",
                              chunk(PAYLOAD, b'{"supported_devices": ["MODEL-X"], "a": ' + b"[" * 9000 + b"]" * 9000 + b"}")),
    "JSON list": ("no JSON object", chunk(PAYLOAD, b'["MODEL-X"]')),
}

# A router would take these, but cut the text, or not boot.
BAD_FOR_OTHER_REASONS = {
    "long custom ID": ("keeps 7", with_metadata(PAYLOAD, customid="12345678")),
    "wrong size in the header": ("a boot loader does, and would not start it", uimage(PAYLOAD, size=len(PAYLOAD) - 1)),
    "larger size in the header": ("a boot loader does, and would not start it", uimage(PAYLOAD, size=len(PAYLOAD) + 1)),
    "data CRC beside metadata": ("CRC of its data", with_metadata(uimage(PAYLOAD, data_crc=1, **EQUAL))),
}


def publish(publisher, content, *, size=None):
    publisher.image.write_bytes(content)
    return publisher.publish(model="Model-X", partition_size=size)


def check_code(router, content):
    (router.folder / "image").write_bytes(content)
    return int(router.call("test", file=str(router.folder / "image"))["check_code"])


@pytest.mark.parametrize("name", GOOD)
def test_good_image_is_published_and_a_router_takes_it(publisher, router, name):
    result = publish(publisher, GOOD[name])
    assert result.returncode == 0, result.text
    assert check_code(router, GOOD[name]) == 0


@pytest.mark.parametrize("name", BAD)
def test_bad_image_is_refused_here_and_on_the_router(publisher, router, name):
    reason, content = BAD[name]
    result = publish(publisher, content)
    assert result.returncode == 2, result.text
    assert reason in result.text
    assert not publisher.out.exists()
    assert check_code(router, content) != 0


def test_equal_addresses_have_two_remedies(publisher):
    result = publish(publisher, uimage(PAYLOAD, **EQUAL))
    assert "Give mkimage -a and -e that differ, or append metadata with 'fwtool -I META.json IMAGE'" in result.text
    assert publish(publisher, uimage(PAYLOAD)).returncode == 0


@pytest.mark.parametrize("name", BAD_FOR_OTHER_REASONS)
def test_image_that_would_be_cut_or_not_boot_is_refused(publisher, name):
    reason, content = BAD_FOR_OTHER_REASONS[name]
    result = publish(publisher, content)
    assert result.returncode == 2 and reason in result.text


def test_image_as_large_as_the_partition_is_published(publisher):
    content = uimage(PAYLOAD)
    assert publish(publisher, content, size=str(len(content))).returncode == 0


@pytest.mark.parametrize("size", [str(len(uimage(PAYLOAD)) - 1), "0x100", "2K"])
def test_image_larger_than_the_partition_is_refused(publisher, size):
    result = publish(publisher, uimage(PAYLOAD), size=size)
    assert result.returncode == 2
    assert "2112 bytes, the flash partition" in result.text


def test_partition_size_in_mebibytes(publisher):
    assert publish(publisher, uimage(PAYLOAD), size="1M").returncode == 0


def test_image_without_a_named_model_is_published_for_its_own(publisher):
    publisher.image.write_bytes(uimage(PAYLOAD, name=b"Other"))
    result = publisher.publish()
    assert result.returncode == 0 and "for the model Other" in result.text


def test_image_for_another_model_than_the_last_is_refused(publisher):
    assert publisher.publish(build="1").returncode == 0
    before = (publisher.out / "update.xml").read_bytes()
    publisher.image.write_bytes(uimage(PAYLOAD, name=b"OTHER"))
    result = publisher.publish(build="2")
    assert result.returncode == 2 and "made for the model 'OTHER'" in result.text and "--other-model" in result.text
    assert (publisher.out / "update.xml").read_bytes() == before
    assert publisher.publish(build="2", other_model=True).returncode == 0
