# SPDX-License-Identifier: ISC
"""The page's files without a browser: what they do (job.test.mjs, by Node.js), how large they are, and
that nothing in them turns a text into HTML."""
import re
import shutil
import subprocess

import pytest

from simulated_router import PROJECT

NAMES = sorted(path.name for path in (PROJECT / "web").iterdir() if path.suffix in (".js", ".css", ".html"))
SCRIPTS = [PROJECT / "web" / name for name in NAMES if name.endswith(".js")]


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    folder = tmp_path_factory.mktemp("page")
    subprocess.run([PROJECT / "web/install", folder], check=True)
    return folder


def test_what_follows_from_what_was_seen(installed, tmp_path):
    """A table of scenes, the faults that there were, and every sequence of events up to a depth, by what is
    left of the sources when the page is installed."""
    shutil.copytree(PROJECT / "tests/page", tmp_path / "tests/page")
    shutil.copytree(installed, tmp_path / "web")
    (tmp_path / "package.json").write_text('{"type":"module"}')
    ran = subprocess.run(["node", "--test", "--test-reporter=tap", "tests/page/job.test.mjs"], cwd=tmp_path, capture_output=True, text=True, check=False)
    print(ran.stdout)
    assert ran.returncode == 0
    assert int(re.search(r"# pass (\d+)", ran.stdout).group(1)) > 100
    assert int(re.search(r"# (\d+) sequences of events", ran.stdout).group(1)) > 100_000


def test_installed_page_is_small(installed):
    sizes = {path.name: path.stat().st_size for path in installed.iterdir()}
    assert set(sizes) == set(NAMES)
    assert sum(sizes.values()) <= LIMIT_ALL
    assert sum(size for name, size in sizes.items() if name != "german.js") <= LIMIT_ENGLISH


def test_files_are_named_by_their_content(installed, tmp_path):
    """A file that changes has another name in whatever names it, up to the page itself."""
    for name in NAMES:
        for target, version in re.findall(r'"(?:\./)?([\w.]+)\?v=(\w+)"', (installed / name).read_text()):
            content = (installed / target).read_bytes()
            assert version == subprocess.run(["md5sum"], input=content, capture_output=True, check=True).stdout[:8].decode()
        assert not re.search(r'"(\./)?\w+\.(js|css)"', (installed / name).read_text()), name
    copy = tmp_path / "web"
    subprocess.run(["cp", "-r", PROJECT / "web", copy], check=True)
    with open(copy / "facts.js", "a", encoding="utf-8") as facts:
        facts.write("export const more = 1;\n")
    subprocess.run([copy / "install", tmp_path / "changed"], check=True)
    changed = {name for name in NAMES if (tmp_path / "changed" / name).read_bytes() != (installed / name).read_bytes()}
    assert changed == {"facts.js", "bus.js", "job.js", "sentences.js", "main.js", "index.html"}


def test_page_has_no_inline_code_and_makes_no_html():
    page = (PROJECT / "web/index.html").read_text(encoding="utf-8")
    policy = re.search(r'Content-Security-Policy" content="([^"]*)"', page).group(1)
    assert policy == "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'"
    assert page.index("Content-Security-Policy") < page.index("<script") and page.count("<script") == 1
    assert not re.search(r"<style|\sstyle=|\son\w+=|javascript:", page)
    for script in SCRIPTS:
        assert not re.search(r"innerHTML|outerHTML|insertAdjacent|document\.write|\beval\b|new Function|setAttribute", script.read_text()), script.name


def test_pure_modules_know_no_browser():
    for name in ("facts.js", "job.js", "sentences.js"):
        code = re.sub(r"^\s*//.*$", "", (PROJECT / "web" / name).read_text(), flags=re.M)
        assert not re.search(r"\b(document|window|fetch|localStorage|sessionStorage|Date|performance|setTimeout|navigator)\b", code), name


def test_every_text_is_used_and_every_used_text_is_there():
    """What never changes stands in index.html, in English; German has all."""
    english = set(re.findall(r'^\t"?([\w-]+)"?: "', (PROJECT / "web/texts.js").read_text(), re.M))
    german = set(re.findall(r'^\t"?([\w-]+)"?: "', (PROJECT / "web/german.js").read_text(), re.M))
    fixed = set(re.findall(r'data-text="(\w+)"', (PROJECT / "web/index.html").read_text()))
    assert german == english | fixed
    code = "".join((PROJECT / "web" / name).read_text() for name in ("job.js", "sentences.js", "bus.js", "view.js", "texts.js"))
    for key in english - fixed:
        stem = re.sub("Text$", "", key)
        assert re.match(r"file-?\d|failed\d", key) or re.search(rf'"{key}"|"{stem}"|\b{stem}: |texts\.{key}', code.replace(f'{key}: "', "")), f"{key} is not used"


# Bytes; comments stay in the sources.
LIMIT_ALL = 48 * 1024
LIMIT_ENGLISH = 40 * 1024
