# SPDX-License-Identifier: ISC
"""The served folder: image first, manifest last, earlier releases kept, rollback."""
import os
import stat
import xml.etree.ElementTree as ElementTree

import pytest
from fwupdate_publish import folder as folders
from fwupdate_publish.folder import Folder
from fwupdate_publish.manifest import Manifest
from make_images import uimage


def offered(publisher):
    root = ElementTree.parse(publisher.out / "update.xml").getroot()
    return {child.tag: child.text for child in root}


def image_of(publisher, content):
    publisher.image.write_bytes(uimage(content))
    return publisher.image


def publish(publisher, build, **options):
    result = publisher.publish(image=image_of(publisher, build.encode()), build=build, version="v" + build, **options)
    assert result.returncode == 0, result.text


def rollback(publisher, *words):
    return publisher.run("rollback", *words, "--out", publisher.out)


def manifest(build, **values):
    return Manifest(build, f"http://192.0.2.1/releases/{build}/firmware.bin", "2.0", **values)


def test_every_element_is_written(publisher):
    publish(publisher, "174200000")
    assert offered(publisher) == {
        "buildtime": "174200000", "version": "v174200000", "release_notes": " ", "force_update": "0",
        "archive": "0", "url": "http://192.0.2.1/releases/174200000/firmware.bin"}


def test_manifest_begins_with_the_declaration(publisher):
    publish(publisher, "174200000")
    assert (publisher.out / "update.xml").read_bytes().startswith(b'<?xml version="1.0" encoding="utf-8"?>\n<update>')


def test_image_comes_first_and_the_manifest_last_each_by_rename(publisher, monkeypatch):
    moved = []
    real = os.replace
    monkeypatch.setattr(os, "replace", lambda a, b: (moved.append((os.path.basename(a), str(b))), real(a, b)))
    Folder(publisher.out).publish(manifest("5"), publisher.image)
    release = f"{publisher.out}/releases/5/"
    assert moved == [(".firmware.bin.part", release + "firmware.bin"), (".update.xml.part", release + "update.xml"),
                     (".update.xml.part", f"{publisher.out}/update.xml")]


@pytest.mark.parametrize("step", [0, 1, 2])
def test_failure_on_the_way_leaves_the_earlier_manifest(publisher, monkeypatch, step):
    folder = Folder(publisher.out)
    folder.publish(manifest("5"), publisher.image)
    before = (publisher.out / "update.xml").read_bytes()
    calls = []

    def failing(source, target):
        calls.append(target)
        if len(calls) > step:
            raise OSError(28, "No space left on device", str(target))
        os.rename(source, target)

    monkeypatch.setattr(folders.os, "replace", failing)
    with pytest.raises(OSError):
        folder.publish(manifest("6"), publisher.image)
    assert (publisher.out / "update.xml").read_bytes() == before
    assert not list(publisher.out.rglob("*.part"))
    # And it can be repeated.
    monkeypatch.undo()
    folder.publish(manifest("6"), publisher.image)
    assert offered(publisher)["buildtime"] == "6"


def test_files_are_readable_for_the_server(publisher):
    os.umask(0o022)
    publish(publisher, "174200000")
    for path in publisher.out.rglob("*"):
        assert stat.S_IMODE(path.stat().st_mode) == (0o755 if path.is_dir() else 0o644), path


def test_image_is_copied_byte_for_byte(publisher):
    publish(publisher, "174200000")
    assert (publisher.out / "releases/174200000/firmware.bin").read_bytes() == publisher.image.read_bytes()


def test_earlier_releases_are_kept(publisher):
    publish(publisher, "1")
    publish(publisher, "2")
    publish(publisher, "10")
    assert Folder(publisher.out).kept() == ["1", "2", "10"]
    assert (publisher.out / "releases/1/firmware.bin").read_bytes() == uimage(b"1")


def test_release_may_be_published_again_with_other_notes(publisher):
    publish(publisher, "1")
    publish(publisher, "1", notes=publisher.notes("better notes"))
    assert offered(publisher)["release_notes"] == "better notes"


@pytest.mark.parametrize("name", ["firmware.bin", "other.bin"])
def test_build_number_is_not_given_to_another_image(publisher, name):
    publish(publisher, "1")
    before = publisher.files()
    other = publisher.folder / name
    other.write_bytes(uimage(b"another"))
    result = publisher.publish(image=other, build="1")
    assert result.returncode == 2
    assert "was published with another image" in result.text
    other.unlink()
    publisher.image.write_bytes(uimage(b"1"))
    assert publisher.files() == before


def test_lower_build_number_is_refused(publisher):
    publish(publisher, "10")
    result = publisher.publish(build="9")
    assert result.returncode == 2
    assert "routers were offered 10" in result.text and "'rollback'" in result.text


def test_build_number_below_one_that_was_taken_back_is_refused(publisher):
    publish(publisher, "1")
    publish(publisher, "10")
    assert rollback(publisher).returncode == 0
    result = publisher.publish(build="9")
    assert result.returncode == 2 and "routers were offered 10" in result.text
    assert offered(publisher)["buildtime"] == "1"


def test_lower_build_number_is_published_with_force(publisher):
    publish(publisher, "10")
    publish(publisher, "9", force=True)
    assert (offered(publisher)["buildtime"], offered(publisher)["force_update"]) == ("9", "1")


def test_rollback_puts_the_release_before_back_and_forces_it(publisher):
    for build in ("1", "2", "10"):
        publish(publisher, build, notes=publisher.notes("notes of " + build))
    result = rollback(publisher)
    assert result.returncode == 0, result.text
    assert offered(publisher) == {
        "buildtime": "2", "version": "v2", "release_notes": "notes of 2", "force_update": "1", "archive": "0",
        "url": "http://192.0.2.1/releases/2/firmware.bin"}


def test_rollback_to_a_named_release(publisher):
    for build in ("1", "2", "10"):
        publish(publisher, build)
    assert rollback(publisher, "1").returncode == 0
    assert offered(publisher)["buildtime"] == "1"


def test_rollback_leaves_the_kept_releases_as_they_are(publisher):
    publish(publisher, "1")
    publish(publisher, "2")
    before = {p: p.read_bytes() for p in publisher.out.rglob("releases/*/*")}
    assert rollback(publisher).returncode == 0
    assert {p: p.read_bytes() for p in publisher.out.rglob("releases/*/*")} == before


def test_rollback_as_a_dry_run_changes_nothing(publisher):
    publish(publisher, "1")
    publish(publisher, "2")
    before = publisher.files()
    result = rollback(publisher, "--dry-run")
    assert result.returncode == 0 and "<force_update>1</force_update>" in result.text
    assert publisher.files() == before


@pytest.mark.parametrize("word, reason", [
    ("3", "does not keep it"), ("../1", "does not keep it"), ("", "does not keep it"),
    (None, "keeps no release before 1")])
def test_rollback_to_nothing_is_refused(publisher, word, reason):
    publish(publisher, "1")
    before = publisher.files()
    result = rollback(publisher, *([] if word is None else [word]))
    assert result.returncode == 2
    assert reason in result.text and "Kept are: 1." in result.text
    assert publisher.files() == before


def test_rollback_without_the_image_is_refused(publisher):
    publish(publisher, "1")
    publish(publisher, "2")
    (publisher.out / "releases/1/firmware.bin").unlink()
    result = rollback(publisher)
    assert result.returncode == 2 and "is gone" in result.text


@pytest.mark.parametrize("content", ["not XML", "<update/>", "<update><buildtime>x</buildtime></update>"])
def test_manifest_of_somebody_else_is_left_alone(publisher, content):
    publisher.out.mkdir()
    (publisher.out / "update.xml").write_text(content)
    before = publisher.files()
    result = publisher.publish()
    assert result.returncode == 2 and "Move it away" in result.text
    assert publisher.files() == before


def test_notes_come_from_standard_input(publisher):
    result = publisher.run(*publisher.words(notes="-"), stdin="Zeile 1\r\nZeile 2 \u2014 \u00fc\r\n".encode())
    assert result.returncode == 0, result.text
    assert offered(publisher)["release_notes"] == "Zeile 1\nZeile 2 \u2014 \u00fc"
