# SPDX-License-Identifier: ISC
"""Any legal input publishes and reads back in the daemon; any illegal one is refused.

One daemon in one sandbox reads all manifests; a question takes some 70 ms, nearly all of
it for the facts about the router that go with it.
"""
import contextlib
import io
import itertools
import re
import string

import pytest
from fwupdate_maker.publisher import command_line, manifest
from hypothesis import HealthCheck, assume, given, settings
from hypothesis import strategies as st
from make_images import uimage

# What a text may hold: no control characters, no surrogates, none that XML forbids.
legal_character = st.characters(blacklist_categories=("Cc", "Cs"), blacklist_characters="\ufeff\ufffe\uffff")
troublesome = st.sampled_from(list("&<>\"'%;]\\$`") + ["&amp;", "]]>", "<!--", "&#65;", "\u00e9", "\U0001f600", "  "])
notes_text = st.lists(st.one_of(legal_character, troublesome, st.sampled_from("\n\t ")), min_size=1).map("".join)
version_text = st.lists(st.one_of(legal_character, troublesome), min_size=1, max_size=12).map("".join)
builds = st.integers(1, 999999999).map(str)
url_characters = string.ascii_letters + string.digits + "-._~!$&'()*+,;=:@"
segments = st.text(url_characters, min_size=1, max_size=40).filter(lambda s: s not in (".", ".."))
urls = st.tuples(st.sampled_from(["http://192.0.2.1", "https://h-1.example.com:8443", "http://[2001:db8::1]"]),
                 st.lists(segments, max_size=4)).map(lambda t: "/".join([t[0], *t[1]]))

legal = st.fixed_dictionaries({
    "version": version_text.filter(lambda s: s == s.strip() != "" and len(s.encode()) <= 19),
    "build": builds,
    "notes": notes_text.map(lambda s: s.rstrip("\n")).filter(lambda s: s.strip() and len(s.encode()) <= 511),
    "url": urls,
    "force": st.booleans(),
})

numbers = itertools.count()
quietly = settings(deadline=None, max_examples=50, derandomize=True, database=None,
                   suppress_health_check=[HealthCheck.function_scoped_fixture, HealthCheck.too_slow])


def run(folder, out, values):
    """In this process, for speed; returns the status and what was said."""
    notes = folder / "notes.txt"
    notes.write_bytes(values["notes"].encode("utf-8", "surrogateescape"))
    image = folder / "firmware.bin"
    image.write_bytes(uimage(b"kernel"))
    words = ["publish", str(image), "--out", str(out), "--notes", str(notes), f"--version={values['version']}",
             f"--build={values['build']}", f"--url={values['url']}"] + ["--force"] * values["force"]
    said = io.StringIO()
    with contextlib.redirect_stdout(said), contextlib.redirect_stderr(said):
        status = command_line.main(words)
    return status, said.getvalue()


def document_size(values):
    url = values["url"].rstrip("/") + f"/releases/{values['build']}/firmware.bin"
    assume(len(url) <= 255)
    return len(manifest.Manifest(values["build"], url, values["version"], values["notes"]).text())


@given(legal)
@quietly
def test_legal_input_is_published_and_reads_back_in_the_daemon(router, tmp_path, values):
    assume(document_size(values) <= 1024)
    # A folder for each: the newest manifest is moved to where the server looks.
    out = tmp_path / f"out-{next(numbers)}"
    status, said = run(tmp_path, out, values)
    assert status == 0, said
    (out / "update.xml").rename(router.server_root / "update.xml")
    reply = router.call("check")
    assert reply["error_code"] == "0"
    assert reply["version"] == values["version"]
    assert reply["buildtime"] == values["build"]
    assert reply["releasenotes"] == values["notes"]
    assert reply["force"] == str(int(values["force"]))
    newer = int(values["build"]) > 171000000
    assert reply["need_update"] == str(int(newer or (values["force"] and int(values["build"]) != 171000000)))


control = st.sampled_from([chr(c) for c in (*range(1, 9), 11, 12, *range(13, 32), *range(127, 160))] + ["\ufeff", "\uffff"])
illegal_change = st.one_of(
    st.integers(1000000000, 10**30).map(lambda n: {"build": str(n)}),
    st.text(string.printable, max_size=9).filter(
        lambda s: not re.fullmatch("[1-9][0-9]{0,8}", s, re.ASCII)).map(lambda s: {"build": s}),
    version_text.filter(lambda s: len(s.encode()) > 19).map(lambda s: {"version": s}),
    st.tuples(st.sampled_from(["version", "notes"]), st.text("ab", max_size=5), control, st.text("ab", max_size=5)).map(
        lambda t: {t[0]: "x" + t[1] + t[2] + t[3] + "x"}),
    st.sampled_from(["version", "notes"]).flatmap(lambda n: st.text(" \n", max_size=5).map(lambda s: {n: s})).filter(
        lambda change: change.get("notes", "").rstrip("\n") != " "),
    st.integers(512, 3000).map(lambda n: {"notes": "n" * n}),
    st.integers(200, 511).map(lambda n: {"notes": "&" * n}),
    st.tuples(urls, st.characters(blacklist_characters=url_characters + "/#?%[]", blacklist_categories=("Cs",))).map(
        lambda t: {"url": t[0] + "/" + t[1] + "x"}),
    st.tuples(urls, st.sampled_from(["/?", "/#", "//x", "/../x", "/./x", "/%", "/%g0"])).map(lambda t: {"url": "".join(t)}),
    st.text(string.ascii_letters + ":/.", max_size=20).filter(lambda s: not re.match("https?://", s)).map(lambda s: {"url": s}),
    st.integers(256, 400).map(lambda n: {"url": "http://192.0.2.1/" + "u" * n}),
)


@given(legal, illegal_change)
@settings(quietly, max_examples=200)
def test_illegal_input_is_refused_and_changes_nothing(tmp_path, values, change):
    out = tmp_path / "never"
    status, said = run(tmp_path, out, {**values, **change})
    assert status == 2, said
    assert "Nothing was changed." in said
    assert not out.exists()


@given(notes_text, version_text)
@quietly
def test_whatever_is_published_reads_back(router, tmp_path, notes, version):
    """No matter what is called legal here: what gets through must read back."""
    values = {"version": version, "build": "174200000", "notes": notes, "url": "http://192.0.2.1", "force": False}
    out = tmp_path / f"out-{next(numbers)}"
    status, _ = run(tmp_path, out, values)
    assume(status == 0)
    (out / "update.xml").rename(router.server_root / "update.xml")
    reply = router.call("check")
    assert (reply["version"], reply["releasenotes"]) == (version, notes.rstrip("\n"))


@pytest.mark.parametrize("build", ["1741176000", "2000000000"])
def test_ten_digits_would_read_back_wrong(router, tmp_path, build):
    """What the refusal saves from: the daemon keeps nine digits of a hand-written one."""
    document = manifest.TEMPLATE.format(build=build, url="http://192.0.2.1/x", version="2", notes="n", force=0)
    (router.server_root / "update.xml").write_text(document)
    reply = router.call("check")
    assert reply["buildtime"] == build[:9]
