# SPDX-License-Identifier: ISC
"""What the update server writes is shown as text, whatever it is; what the page says itself has two languages."""
import answers
from browser import wait_until


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


def test_any_bytes_of_the_notes_survive(router, page):
    page.open_and_sign_in()
    for raw, wanted in (
            (b"a\xff\xfe\xc3(b", "a\ufffd\ufffd\ufffd(b"),
            ("a\u202eexe.b\u2066c\u200fd".encode(), "a\ufffdexe.b\ufffdc\ufffdd"),
            (b"a\x01\x1b[31mb\x7f", "a\ufffd\ufffd[31mb\ufffd"),
            ("one\r\ntwo\n\tthree".encode(), "one\ntwo\n\tthree"),
            ("\u05e9\u05dc\u05d5\u05dd \U0001f600 \u4e2d".encode(), "\u05e9\u05dc\u05d5\u05dd \U0001f600 \u4e2d"),
            (b"{count} {path}", "{count} {path}")):
        quoted = b"".join(b"\\u%04x" % byte if byte < 32 else bytes([byte]) for byte in raw)
        router.relay.fault = answers.instead_of("check", answers.result(
            b'{"status":10,"answer":{"error_code":"0","need_update":"1","version":"r2","buildtime":"2","releasenotes":"%s"}}' % quoted))
        page.click("check")
        wait_until(lambda: notes_of(page) == wanted, lambda: f"{wanted!a}, not {notes_of(page)!a}")


def test_notes_that_the_daemon_cut_in_a_character_survive(router, page):
    shown = shown_notes(router, page, "x" * 511 + "\u00e9")
    assert shown.startswith("x" * 511)


def test_long_notes_without_a_blank_stay_inside(router, page):
    """The longest that the daemon hands on, on the narrowest screen."""
    page.set_width(360)
    assert len(shown_notes(router, page, "x" * 511)) == 511
    assert page.script("return document.documentElement.scrollWidth") <= 360
    assert page.script("const box = document.getElementById('notes'); return box.scrollWidth - box.clientWidth") <= 0


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
    page.await_text("verdict", "Eine neue Version ist verfügbar")
    assert page.script("return document.documentElement.lang") == "de"
    assert page.driver.title == "Firmware-Update"


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
