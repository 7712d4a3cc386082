# SPDX-License-Identifier: ISC
"""The served folder: image first, manifest last, earlier releases kept, rollback."""
import os
import stat
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
from fwupdate_maker.publisher import command_line
from fwupdate_maker.publisher import folder as folders
from fwupdate_maker.publisher.folder import Folder
from fwupdate_maker.publisher.manifest import Manifest
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


def put(folder, release, image):
    """Publishes without the command line."""
    with folder.locked(0, print):
        folder.publish(release, image.name, lambda target: target.write(image.read_bytes()), lambda part: None)


def test_image_comes_first_and_the_manifest_last_each_by_rename(publisher, monkeypatch):
    moved = []
    real = os.replace
    monkeypatch.setattr(os, "replace", lambda a, b: (moved.append((os.path.basename(a), str(b))), real(a, b)))
    put(Folder(publisher.out), manifest("5"), publisher.image)
    release = f"{publisher.out}/releases/5/"
    assert moved == [(".firmware.bin.part", release + "firmware.bin"),
                     (".firmware.bin.sha256.part", release + "firmware.bin.sha256"),
                     (".update.xml.part", f"{publisher.out}/update.xml"), (".update.xml.part", release + "update.xml")]


@pytest.mark.parametrize("step", [0, 1, 2])
def test_failure_on_the_way_leaves_the_earlier_manifest(publisher, monkeypatch, step):
    folder = Folder(publisher.out)
    put(folder, manifest("5"), publisher.image)
    before = publisher.files()
    calls = []

    def failing(source, target):
        calls.append(target)
        if len(calls) > step:
            raise OSError(28, "No space left on device", str(target))
        os.rename(source, target)

    monkeypatch.setattr(folders.os, "replace", failing)
    with pytest.raises(OSError):
        put(folder, manifest("6"), publisher.image)
    assert publisher.files() == before
    # And it can be repeated.
    monkeypatch.undo()
    put(folder, manifest("6"), publisher.image)
    assert offered(publisher)["buildtime"] == "6"


@pytest.mark.parametrize("umask", [0, 0o022, 0o077, 0o777])
def test_files_are_readable_for_the_server(publisher, umask):
    before = os.umask(umask)
    try:
        result = publisher.publish(out=publisher.folder / "new/served")
    finally:
        os.umask(before)
    assert result.returncode == 0, result.text
    for path in (publisher.folder / "new").rglob("*"):
        assert stat.S_IMODE(path.stat().st_mode) == (0o755 if path.is_dir() else 0o644), path


def test_files_keep_the_mode_they_had(publisher):
    publish(publisher, "1")
    (publisher.out / "update.xml").chmod(0o640)
    (publisher.out / "releases").chmod(0o2750)
    publish(publisher, "2")
    assert stat.S_IMODE((publisher.out / "update.xml").stat().st_mode) == 0o640
    assert stat.S_IMODE((publisher.out / "releases").stat().st_mode) == 0o2750


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


def test_image_of_a_build_that_was_never_offered_may_be_replaced(publisher):
    """A publishing that was killed has left it there."""
    release = publisher.out / "releases/2"
    release.mkdir(parents=True)
    (release / "firmware.bin").write_bytes(uimage(b"before it was built again"))
    (release / "other.bin").write_bytes(b"left over")
    publish(publisher, "2")
    assert sorted(p.name for p in release.iterdir()) == ["firmware.bin", "firmware.bin.sha256", "update.xml"]
    assert (release / "firmware.bin").read_bytes() == uimage(b"2")


def test_release_that_a_kill_left_unkept_is_kept(publisher):
    publish(publisher, "1")
    publish(publisher, "2")
    kept = publisher.out / "releases/2/update.xml"
    before = kept.read_bytes()
    kept.unlink()
    publisher.image.write_bytes(uimage(b"another"))
    assert "published with another image" in publisher.publish(build="2").text
    publish(publisher, "3")
    assert kept.read_bytes() == before


@pytest.mark.parametrize("builds", [[], ["1"]])
def test_image_that_changes_while_it_is_copied_is_not_published(publisher, monkeypatch, builds):
    """What was checked is what is published: the copy is checked, not the source."""
    for build in builds:
        publish(publisher, build)
    before = publisher.files()
    real = command_line.copy

    def copy(options, release, image, target):
        publisher.image.write_bytes(uimage(b"2")[:-1] + b"?")
        real(options, release, image, target)

    monkeypatch.setattr(command_line, "copy", copy)
    image_of(publisher, b"2")
    assert command_line.main(list(map(str, publisher.words(build="2")))) == 2
    publisher.image.write_bytes(uimage(b"1"))
    assert {k: v for k, v in publisher.files().items() if k.startswith("served")} == \
        {k: v for k, v in before.items() if k.startswith("served")}


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


def test_rollback_says_what_routers_are_offered_instead(publisher):
    publish(publisher, "1")
    publish(publisher, "2")
    assert "Version v1, build 1, forced in place of version v2, build 2: every router" in rollback(publisher).text


def test_rollback_after_a_rollback_needs_a_build(publisher):
    """Said twice by mistake, it would go back one release more."""
    for build in ("1", "2", "3"):
        publish(publisher, build)
    assert rollback(publisher).returncode == 0
    result = rollback(publisher)
    assert result.returncode == 2 and "build 2 was put back already" in result.text
    assert offered(publisher)["buildtime"] == "2"
    assert rollback(publisher, "1").returncode == 0
    assert rollback(publisher, "1").returncode == 0
    assert offered(publisher)["buildtime"] == "1"


def test_rollback_of_a_damaged_image_is_refused(publisher):
    """Its checksum is kept, so that a change is seen that the image's own CRC allows."""
    publish(publisher, "1")
    publish(publisher, "2")
    image = publisher.out / "releases/1/firmware.bin"
    image.write_bytes(uimage(b"3"))
    before = publisher.files()
    result = rollback(publisher)
    assert result.returncode == 2 and "its checksum is another" in result.text
    assert publisher.files() == before
    # Published before checksums were kept: its CRC is all there is.
    image.with_name("firmware.bin.sha256").unlink()
    image.write_bytes(uimage(b"3")[:-1] + b"?")
    assert "CRC of its data" in rollback(publisher).text
    image.write_bytes(uimage(b"1"))
    assert rollback(publisher).returncode == 0


def test_checksum_is_as_sha256sum_reads_it(publisher):
    publish(publisher, "1")
    subprocess.run(["sha256sum", "-c", "firmware.bin.sha256"], cwd=publisher.out / "releases/1", check=True)


def test_rollback_takes_the_present_address(publisher):
    publish(publisher, "1")
    publish(publisher, "2", url="http://moved.example.com/x")
    assert rollback(publisher).returncode == 0
    assert offered(publisher)["url"] == "http://moved.example.com/x/releases/1/firmware.bin"
    assert rollback(publisher, "1", "--url", "http://192.0.2.9/").returncode == 0
    assert offered(publisher)["url"] == "http://192.0.2.9/releases/1/firmware.bin"
    assert rollback(publisher, "1", "--url", "ftp://x").returncode == 2


def test_rollback_lists_only_what_is_there(publisher):
    for build in ("1", "2", "3"):
        publish(publisher, build)
    (publisher.out / "releases/2/firmware.bin").unlink()
    assert "Kept are: 1, 3." in rollback(publisher, "7").text


def test_promote_offers_the_candidate_in_stable(publisher):
    stable = publisher.folder / "stable"
    publish(publisher, "1", out=stable, url="http://192.0.2.1/stable")
    publish(publisher, "2", notes=publisher.notes("better"), url="http://192.0.2.1/candidate")
    result = publisher.run("promote", "--from", publisher.out, "--to", stable)
    assert result.returncode == 0, result.text
    text = (stable / "update.xml").read_text()
    assert "<url>http://192.0.2.1/stable/releases/2/firmware.bin</url>" in text
    assert "<release_notes>better</release_notes>" in text and "<force_update>0<" in text
    assert (stable / "releases/2/firmware.bin").read_bytes() == uimage(b"2")
    # Into an empty folder only with its address; and a damaged candidate not at all.
    new = publisher.folder / "new"
    assert "Give --url" in publisher.run("promote", "--from", publisher.out, "--to", new).text
    (publisher.out / "releases/2/firmware.bin").write_bytes(uimage(b"3"))
    result = publisher.run("promote", "--from", publisher.out, "--to", new, "--url", "http://192.0.2.1")
    assert result.returncode == 2 and "its checksum is another" in result.text and not new.exists()


def test_list_and_status_tell_what_there_is(publisher):
    publish(publisher, "1")
    publish(publisher, "2")
    (publisher.out / "releases/1/firmware.bin").unlink()
    result = publisher.run("list", "--out", publisher.out)
    assert result.text.splitlines() == ["           1  v1                   the image is gone",
                                        "*          2  v2                   65 bytes"]
    result = publisher.run("status", "--out", publisher.out)
    assert result.returncode == 0 and "Offered: version v2, build 2\n" in result.text and "as published" in result.text
    (publisher.out / "releases/2/firmware.bin").write_bytes(uimage(b"3"))
    result = publisher.run("status", "--out", publisher.out)
    assert result.returncode == 1 and "its checksum is another" in result.text
    assert publisher.run("status", "--out", publisher.folder / "gone").returncode == 2


def test_prune_keeps_the_newest_and_what_is_offered(publisher):
    for build in ("1", "2", "3", "4", "5"):
        publish(publisher, build)
    assert rollback(publisher, "2").returncode == 0
    before = publisher.files()
    result = publisher.run("prune", "--keep", "2", "--out", publisher.out, "--dry-run")
    assert result.text.splitlines()[:2] == ["Would be removed: release 1", "Would be removed: release 3"]
    assert publisher.files() == before
    assert publisher.run("prune", "--keep", "2", "--out", publisher.out).returncode == 0
    assert Folder(publisher.out).kept() == ["2", "4", "5"]
    assert sorted(p.name for p in (publisher.out / "releases").iterdir()) == ["2", "4", "5"]


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
