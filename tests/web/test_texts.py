# SPDX-License-Identifier: ISC
"""What the update server writes is shown as text, whatever it is; what the page says itself has two languages."""
import re

import answers
from browser import wait_until
from simulated_router import PROJECT

PAGE = [PROJECT / "web" / name for name in ("index.html", "page.css", "page.js")]


def notes_of(page):
    return page.script("return document.getElementById('notes').textContent")


def shown_notes(router, page, notes, **manifest):
    router.offer(notes=notes, **manifest)
    page.open_and_sign_in()
    return notes_of(page)


def test_markup_in_the_notes_is_text(router, page):
    """Nothing is created of it, nothing runs."""
    notes = "<img src=x onerror=window.ran=1><script>window.ran=1</script><a href=javascript:ran=1>x</a>{count}&amp;"
    escaped = notes.replace("&", "&amp;").replace("<", "&lt;")
    elements = "return document.querySelectorAll('*').length"
    shown_notes(router, page, "plain")
    before = page.script(elements)
    router.offer(notes=escaped, version="&lt;b&gt;r1300")
    page.click("check")
    wait_until(lambda: notes_of(page) == notes, lambda: notes_of(page))
    assert page.text("offer-version") == "<b>r1300"
    assert page.script(elements) == before
    assert page.script("return window.ran") is None
    page.picture("hostile-notes")


def test_any_bytes_of_the_notes_survive(router, page):
    page.open_and_sign_in()
    for raw, wanted, replaced in (
            (b"a\xff\xfe\xc3(b", "a\ufffd\ufffd\ufffd(b", 3),
            ("a\u202eexe.b\u2066c\u200fd".encode(), "a\ufffdexe.b\ufffdc\ufffdd", 3),
            (b"a\x01\x1b[31mb\x7f", "a\ufffd\ufffd[31mb\ufffd", 3),
            ("one\r\ntwo\n\tthree".encode(), "one\ntwo\n\tthree", 0),
            ("\u05e9\u05dc\u05d5\u05dd \U0001f600 \u4e2d".encode(), "\u05e9\u05dc\u05d5\u05dd \U0001f600 \u4e2d", 0),
            (b"{count} {path}", "{count} {path}", 0)):
        quoted = b"".join(b"\\u%04x" % byte if byte < 32 else bytes([byte]) for byte in raw)
        router.relay.fault = answers.instead_of("check", answers.result(
            b'{"error_code":"0","need_update":"1","version":"r2","buildtime":"2","releasenotes":"%s"}' % quoted))
        page.click("check")
        wait_until(lambda: notes_of(page) == wanted, lambda: f"{wanted!a}, not {notes_of(page)!a}")
        said = page.text("notes-replaced")
        assert said == (f"Characters that cannot be shown: {replaced}. \ufffd stands in their place." if replaced else "")


def test_notes_that_the_daemon_cut_in_a_character_survive(router, page):
    shown = shown_notes(router, page, "x" * 511 + "\u00e9")
    assert shown.startswith("x" * 511 + "\ufffd")
    assert page.text("notes-replaced").startswith("Characters that cannot be shown: 1.")


def test_long_notes_without_a_blank_stay_inside(router, page):
    """The longest that the daemon hands on, on the narrowest screen."""
    page.set_width(360)
    assert len(shown_notes(router, page, "x" * 511)) == 511
    assert page.script("return document.documentElement.scrollWidth") <= 360
    assert page.script("const box = document.getElementById('notes'); return box.scrollWidth - box.clientWidth") <= 0
    page.picture("long-notes")


def test_mark_in_the_version_turns_nothing_around(router, page):
    router.offer(version="r1\u202e003")
    page.open_and_sign_in()
    assert page.text("offer-version") == "r1\ufffd003"
    page.click("update")
    assert "r1\ufffd003" in page.text("question-text")


def test_german_where_the_browser_asks_for_it(router, make_page):
    router.offer()
    page = make_page(router, language="de-AT,en")
    page.open()
    page.sign_in()
    page.await_text("verdict", "Eine neuere Version ist verfügbar.")
    assert page.script("return document.documentElement.lang") == "de"
    assert page.driver.title == "Firmware-Aktualisierung"
    page.picture("german")


def test_english_where_no_language_fits(router, make_page):
    page = make_page(router, language="fr,it")
    page.open()
    assert page.driver.title == "Firmware update"


def test_both_languages_fill_in_the_same(driver):
    source = PAGE[2].read_text(encoding="utf-8")
    literal = re.search(r"const TEXTS = ({.*?\n});", source, re.S).group(1)
    texts = driver.execute_script(f"return {literal}")
    assert len(texts) > 80
    for key, both in texts.items():
        names = [sorted(re.findall(r"\{\w+\}", text)) for text in both]
        assert len(both) in (1, 2) and all(both), key
        assert names[0] == names[-1], key


def test_every_text_is_used_and_every_used_text_is_there():
    source = PAGE[2].read_text(encoding="utf-8")
    keys = set(re.findall(r'^\t"?([\w-]+)"?: \["', source, re.M))
    code = source[source.index("const NO_SESSION"):] + PAGE[0].read_text(encoding="utf-8")
    computed = {key for key in keys if re.match(r"file-?\d|failed\d", key)}
    for key in keys - computed:
        stem = re.sub("Text$", "", key)
        assert re.search(rf'\b{key}\b|"{stem}"|\b{stem}: ', code), f"{key} is not used"
    for key in re.findall(r'data-text="(\w+)"|text\("(\w+)"', code):
        assert (key[0] or key[1]) in keys, key


def test_page_is_small_and_has_no_inline_code():
    assert sum(path.stat().st_size for path in PAGE) < 40 * 1024
    page = PAGE[0].read_text(encoding="utf-8")
    policy = re.search(r'Content-Security-Policy" content="([^"]*)"', page).group(1)
    assert policy == "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'"
    assert page.index("Content-Security-Policy") < page.index("<script") and page.count("<script") == 1
    assert not re.search(r"<style|\sstyle=|\son\w+=|javascript:", page)
    script = PAGE[2].read_text(encoding="utf-8")
    assert not re.search(r"innerHTML|outerHTML|insertAdjacent|document\.write|\beval\b|new Function|setAttribute", script)


def test_policy_lets_no_injected_script_run(router, page):
    """Even if a text became an element, the browser would not run it."""
    page.open()
    page.script("""
        const element = document.createElement("script");
        element.textContent = "window.ran = 1";
        document.body.append(element);
        const image = document.createElement("img");
        image.src = "http://127.0.0.1:9/x";
        document.body.append(image)""")
    said = []  # the browser tells each complaint once

    def both_are_refused():
        said.extend(text for text in page.complaints() if "Content Security Policy" in text)
        return len(said) >= 2
    wait_until(both_are_refused, lambda: f"the browser refused both: {said}")
    assert page.script("return window.ran") is None
