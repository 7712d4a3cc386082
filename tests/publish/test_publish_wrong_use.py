# SPDX-License-Identifier: ISC
"""Wrong uses of fwupdate-publish that are about files and the command line itself:
what is wrong is said, and nothing is changed."""
import contextlib
import fcntl
import os
import signal
import subprocess

import pytest
from make_images import uimage, with_metadata
from simulated_router import PROJECT, wait_until

PROGRAM = str(PROJECT / "publish/fwupdate-publish")


def assert_refused(publisher, result, before, *texts):
    assert result.returncode == 2, result.text
    for text in texts:
        assert text in result.text, result.text
    assert "Traceback" not in result.text
    assert publisher.files() == before


def without_root(*command):
    """Root reads and writes everything, whatever a file's mode says; not so with this."""
    if os.geteuid() != 0:
        return command
    return ("setpriv", "--bounding-set=-dac_override,-dac_read_search", *command)


def run(publisher, *command, **options):
    result = subprocess.run(command, cwd=publisher.folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            timeout=60, **options)
    result.text = result.stdout.decode(errors="replace")
    return result


def words(publisher, **changes):
    return [str(word) for word in publisher.words(**changes)]


@pytest.mark.parametrize("image, reason", [
    ("", "it names no file"), (".", "it is a folder"), ("served.d", "it is a folder"),
    ("pipe", "it is no plain file"), ("firmware.bin/", "there is no such file"), ("x" * 270, "there is no such file")])
def test_image_that_is_no_file(publisher, image, reason):
    (publisher.folder / "served.d").mkdir()
    os.mkfifo(publisher.folder / "pipe")
    result = publisher.publish(image=image)
    assert result.returncode == 2, result.text
    assert f"image '{image}': {reason}" in result.text and "Name the firmware image" in result.text
    assert "Rename" not in result.text
    assert not publisher.out.exists()


def test_image_and_notes_that_cannot_be_read(publisher):
    publisher.image.chmod(0)
    notes = publisher.notes("x")
    notes.chmod(0)
    for changes, reason in (({}, "image '"), ({"notes": notes}, "notes '")):
        result = run(publisher, *without_root(PROGRAM, *words(publisher, **changes)))
        assert result.returncode == 2, result.text
        assert reason in result.text and "Permission denied" in result.text and "Make it readable" in result.text
        assert not publisher.out.exists()


@pytest.mark.parametrize("notes, reason", [("", "it names no file"), (".", "it is a folder"),
                                           ("/dev/zero", "it has more than 65536 bytes")])
def test_notes_that_are_no_text_file(publisher, notes, reason):
    assert_refused(publisher, publisher.publish(notes=notes), publisher.files(), f"notes '{notes}': {reason}")


def test_notes_come_from_a_pipe(publisher):
    result = run(publisher, "bash", "-c", '"$0" "$@" --notes <(echo better)', PROGRAM, *words(publisher))
    assert result.returncode == 0, result.text
    assert b"<release_notes>better</release_notes>" in (publisher.out / "update.xml").read_bytes()


def test_notes_from_a_closed_standard_input(publisher):
    before = publisher.files()
    result = run(publisher, "sh", "-c", '"$0" "$@" --notes - <&-', PROGRAM, *words(publisher))
    assert_refused(publisher, result, before, "notes '-': standard input is closed")


@pytest.mark.parametrize("below", ["", "new/folder"])
@pytest.mark.parametrize("more", [[], ["--dry-run"]])
def test_out_that_cannot_be_written(publisher, below, more):
    publisher.out.mkdir(mode=0o555)
    out = publisher.out / below
    result = run(publisher, *without_root(PROGRAM, *words(publisher, out=out), *more))
    assert_refused(publisher, result, publisher.files(), f"--out '{out}': ", "cannot be written", "Make it writable")


@pytest.mark.parametrize("place, reason", [("releases", "is no folder"), ("releases/174200000", "is no folder")])
def test_file_where_a_folder_belongs(publisher, place, reason):
    path = publisher.out / place
    path.parent.mkdir(parents=True)
    path.write_text("in the way")
    before = publisher.files()
    assert_refused(publisher, publisher.publish(), before, f"'{path}' {reason}")


def test_folder_where_the_manifest_belongs(publisher):
    (publisher.out / "update.xml").mkdir(parents=True)
    before = publisher.files()
    assert_refused(publisher, publisher.publish(), before, "update.xml': it cannot be read (Is a directory)")


def test_full_disk(publisher):
    """What was offered before is offered still, and nothing half-written is left."""
    assert publisher.publish(build="1").returncode == 0
    (publisher.out / "update.xml").rename(publisher.folder / "old.xml")
    publisher.image.write_bytes(uimage(b"kernel" * 20000))
    script = """mkdir full && mount -t tmpfs -o size=64k none full && cp old.xml full/update.xml || exit 99
                "$0" "$@"; status=$?
                cmp old.xml full/update.xml && find full; exit $status"""
    result = run(publisher, "unshare", "--map-root-user", "--mount", "sh", "-c", script, PROGRAM,
                 *words(publisher, out="full"))
    assert result.returncode == 1, result.text
    assert "full/releases/174200000/firmware.bin: No space left on device.\n  update.xml is as it was" in result.text
    assert result.text.endswith("full\nfull/update.xml\n"), result.text


@pytest.mark.parametrize("option, value", [("build", "174200001"), ("out", "elsewhere"), ("version", "3"),
                                           ("url", "http://192.0.2.2")])
def test_option_that_is_given_twice(publisher, option, value):
    before = publisher.files()
    result = publisher.run(*publisher.words(), f"--{option}", value)
    assert_refused(publisher, result, before, f"--{option}: it is given twice, as '", f"and as '{value}'")


@pytest.mark.parametrize("changes, reason", [
    ({"build": "9" * 5000}, "it has 5000 digits"), ({"partition_size": "9" * 5000}, "is no size"),
    ({"version": "v" * 5000}, "it has 5000 bytes"), ({"url": "http://192.0.2.1/" + "h" * 5000}, "a router keeps 255"),
    ({"image": "i" * 5000}, "there is no such file"), ({"out": "o" * 5000}, "File name too long")])
def test_overlong_value_is_shown_cut(publisher, changes, reason):
    before = publisher.files()
    result = publisher.publish(**changes)
    assert_refused(publisher, result, before, reason)
    assert max(len(line) for line in result.text.splitlines()) < 600


@pytest.mark.parametrize("changes", [{"image": "a\x1b[31m\nb"}, {"version": "2\n0"}, {"url": "http://\x1b[31m"},
                                     {"partition_size": "\x1b[31m"}, {"out": "firmware.bin\x1b"}])
def test_control_characters_do_not_reach_the_terminal(publisher, changes):
    (publisher.folder / "firmware.bin\x1b").write_text("in the way")
    before = publisher.files()
    result = publisher.publish(**changes)
    assert_refused(publisher, result, before, "\\x1b" if "version" not in changes else "'2\\n0'")
    assert "\x1b" not in result.text


def test_output_that_cannot_show_a_letter(publisher):
    result = run(publisher, PROGRAM, *words(publisher, version="\u00fc"), env={**os.environ, "PYTHONIOENCODING": "ascii"})
    assert result.returncode == 0 and "Version \\xfc" in result.text, result.text


def test_full_output_is_noticed_before_anything_is_written(publisher):
    environment = {key: value for key, value in os.environ.items() if key != "PYTHONUNBUFFERED"}
    result = run(publisher, "sh", "-c", '"$0" "$@" >/dev/full', PROGRAM, *words(publisher), env=environment)
    assert result.returncode == 1, result.text
    assert result.text == "fwupdate-publish: standard output: No space left on device.\n"
    assert not publisher.out.exists()


@pytest.mark.parametrize("number, status", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_signal_ends_it_cleanly(publisher, number, status):
    """While it waits for the folder, and so before anything is written."""
    assert publisher.publish(build="1").returncode == 0
    before = publisher.files()
    with locked(publisher.out):
        process = subprocess.Popen([PROGRAM, *words(publisher)], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        while b"waiting for it" not in (line := process.stdout.readline()):
            assert line
        process.send_signal(number)
        text = process.communicate(timeout=60)[0].decode()
    assert (process.returncode, text) == (status, "fwupdate-publish: ended by a signal.\n")
    assert publisher.files() == before


@pytest.mark.parametrize("number, status", [(signal.SIGINT, 130), (signal.SIGTERM, 143)])
def test_signal_in_the_middle_leaves_what_was_offered(publisher, number, status):
    """The image's copy is under way: a tool that signs it is waited for."""
    publisher.image.write_bytes(with_metadata(b"squashfs"))
    assert publisher.publish(build="1").returncode == 0
    before = publisher.files()
    tool = publisher.folder / "bin/usign"
    tool.parent.mkdir()
    tool.write_text("#!/bin/sh\necho signing >&2\nexec sleep 60\n")
    tool.chmod(0o755)
    (publisher.folder / "key.sec").write_text("untrusted comment: secret\nAAAA\n")
    shown = publisher.folder / "shown"
    with open(shown, "wb") as output:
        process = subprocess.Popen([PROGRAM, *words(publisher, sign="key.sec")], cwd=publisher.folder, stdout=output,
                                   stderr=output, env={**os.environ, "PATH": f"{tool.parent}:{os.environ['PATH']}"})
        wait_until(lambda: list(publisher.out.rglob("*.part")), "the copy is under way")
        process.send_signal(number)
        assert process.wait(60) == status
    assert "update.xml is as it was." in shown.read_text()
    assert {name: content for name, content in publisher.files().items() if name.startswith("served")} == \
        {name: content for name, content in before.items() if name.startswith("served")}


@contextlib.contextmanager
def locked(folder):
    descriptor = os.open(folder, os.O_RDONLY)
    fcntl.flock(descriptor, fcntl.LOCK_EX)
    yield
    os.close(descriptor)


def test_waiting_for_another_one_ends(publisher):
    assert publisher.publish(build="1").returncode == 0
    before = publisher.files()
    with locked(publisher.out):
        result = publisher.publish(wait=0)
    assert result.returncode == 1 and "still works in this folder after 0 seconds" in result.text
    assert publisher.files() == before
    assert publisher.publish(wait=0).returncode == 0


def test_notes_from_a_pipe_that_nobody_writes(publisher):
    os.mkfifo(publisher.folder / "pipe")
    result = publisher.publish(notes=publisher.folder / "pipe")
    assert result.returncode == 2 and "release notes: it is empty" in result.text
