# SPDX-License-Identifier: ISC
"""Every stage of the page, as tests/page/scenes.mjs comes to it, shown by view.js without a router: for
narrow screens, large letters, dark rooms, and those who do not see it."""
import functools
import http.server
import os
import pathlib
import re
import shutil
import subprocess
import threading

import pytest

from browser import Page
from simulated_router import PROJECT

AXE = PROJECT / "build/web/node_modules/axe-core/axe.min.js"
SPOKEN = pathlib.Path(__file__).with_name("spoken.txt")
PICTURES = ("available", "sign-in", "question", "loading", "installing", "done", "failed", "not-restarted", "trial")
SCENES = re.findall(r'^\t"?([\w-]+)"?: \["', (PROJECT / "tests/page/scenes.mjs").read_text(), re.M)


class Quiet(http.server.SimpleHTTPRequestHandler):
    def log_message(self, *_):
        pass


@pytest.fixture(scope="module")
def address(tmp_path_factory):
    """The page as it is installed, but nothing drives it."""
    folder = tmp_path_factory.mktemp("scenes")
    subprocess.run([PROJECT / "web/install", folder / "web"], check=True)
    page = folder / "web/index.html"
    page.write_text(re.sub(r"<script.*</script>", "", page.read_text()))
    shutil.copytree(PROJECT / "tests/page", folder / "tests/page")
    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), functools.partial(Quiet, directory=folder)) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield f"http://127.0.0.1:{server.server_address[1]}/web/"
        server.shutdown()


class Scenes(Page):
    def open(self, language="en"):
        super().open()
        assert self.driver.execute_async_script("""
            const [language, done] = arguments;
            const load = (name) => import(location.origin + name);
            const find = async (file, name) => (await (await fetch(file)).text()).match(new RegExp(name + "\\\\.js\\\\?v=\\\\w+"))[0];
            (async () => {
                const { SCENES, play } = await load("/tests/page/scenes.mjs");
                const view = await load("/web/" + await find("main.js", "view"));
                const { picture } = await load("/web/" + await find("main.js", "sentences"));
                const { speak } = await load("/web/" + await find("main.js", "texts"));
                view.translate(await speak([language]));
                window.showScene = (name) => {
                    const { model, now } = play(SCENES[name][1]);
                    view.show(picture(model, now));
                };
                return "shown";
            })().then(done, (fault) => done(String(fault)))""", language) == "shown"

    def scenes(self):
        for name in SCENES:
            self.script("showScene(arguments[0])", name)
            yield name


@pytest.fixture
def page(driver, address):
    first = driver.current_window_handle
    driver.switch_to.new_window("tab")
    shown = Scenes(driver, address)
    shown.open()
    yield shown
    complaints = shown.complaints()
    driver.close()
    driver.switch_to.window(first)
    assert not complaints


def nothing_is_cut_off(page, name):
    assert page.script("return document.documentElement.scrollWidth <= innerWidth"), name
    outside = page.script("""
        return [...document.querySelectorAll("body *")].filter((one) => {
            const box = one.getBoundingClientRect();
            return box.width && (box.right > innerWidth + 1 || box.left < -1);
        }).map((one) => one.id || one.tagName)""")
    assert not outside, name


@pytest.mark.parametrize("language", ["en", "de"])
def test_narrow_screen_cuts_nothing_off(page, language):
    page.open(language)
    page.set_width(320)
    for name in page.scenes():
        nothing_is_cut_off(page, name)


def test_letters_of_twice_the_size_cut_nothing_off(page):
    page.set_width(640)
    page.script("document.documentElement.style.fontSize = '200%'")
    for name in page.scenes():
        nothing_is_cut_off(page, name)


@pytest.mark.parametrize("dark", [False, True], ids=["light", "dark"])
def test_axe_finds_nothing(page, dark):
    if not AXE.exists():
        reason = "axe-core is not there: './setup.sh --web' fetches it with npm"
        assert not os.environ.get("CI"), reason
        pytest.skip(reason)
    page.set_dark(dark)
    page.script(AXE.read_text(encoding="utf-8"))
    for name in page.scenes():
        found = page.driver.execute_async_script("""
            const done = arguments[arguments.length - 1];
            axe.run({ resultTypes: ["violations"] }).then((all) => done(all.violations), (fault) => done([String(fault)]))""")
        assert [(one["id"], [node["html"] for node in one["nodes"]]) if isinstance(one, dict) else one
                for one in found] == [], name


SILENT = ("InlineTextBox", "RootWebArea", "generic", "group", "main", "none", "ListMarker", "LabelText", "DescriptionList")
WHOLE = ("heading", "button", "link", "listitem", "term", "definition", "textbox", "DisclosureTriangle")  # their text is their name
PARTS = ("banner", "form", "list", "region")  # what is in one that is known is not said again
STATES = ("disabled", "focused")


class Reader:
    """What a screen reader makes of the page, a line for each thing, in its order."""

    def __init__(self):
        self.known = {}  # part: the scene that it was in first

    def read(self, page, scene):
        tree = page.driver.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]
        self.nodes = {node["nodeId"]: node for node in tree}
        return self.lines(tree[0], scene)

    def children(self, node):
        return [self.nodes[child] for child in node.get("childIds", []) if self.nodes[child]["role"]["value"] != "LabelText"]

    def text(self, node):
        own = node["name"]["value"] if node["role"]["value"] == "StaticText" else ""
        return own + "".join(self.text(child) for child in self.children(node))

    def states(self, node):
        return [one["name"] for one in node.get("properties", []) if one["name"] in STATES and one["value"].get("value")]

    def whole(self, node):
        return str([node["role"]["value"], node.get("name"), self.states(node), *map(self.whole, self.children(node))])

    def lines(self, node, scene):
        role, name = node["role"]["value"], node.get("name", {}).get("value", "")
        inside = [line for child in self.children(node) for line in self.lines(child, scene)]
        if role == "StaticText" or role == "paragraph" and all(line.startswith("text ") for line in inside):
            return [f"text {self.text(node)!r}"] if self.text(node) else []
        if node["ignored"] or role in (*SILENT, "paragraph"):
            return inside
        name = name or (self.text(node) if role in WHOLE else "")
        said = " ".join([role, *([repr(name)] if name else []), *self.states(node)])
        first = self.known.setdefault((said, self.whole(node)), scene) if role in PARTS else scene
        return [f"{said} as in {first}"] if first != scene else [said, *([] if role in WHOLE else inside)]


def test_what_a_screen_reader_says(page):
    """The accessibility tree of each scene; FWUPDATE_PICTURES=1 writes it anew."""
    page.script("Date.prototype.toLocaleTimeString = () => '12:00'")
    reader = Reader()
    said = "\n".join("".join(f"{line}\n" for line in (f"== {name}", *reader.read(page, name))) for name in page.scenes())
    if os.environ.get("FWUPDATE_PICTURES"):
        SPOKEN.write_text(said, encoding="utf-8")
    assert said == SPOKEN.read_text(encoding="utf-8")


def test_pictures_for_the_documents(page):
    for name in page.scenes():
        if name in PICTURES:
            page.picture(name)
    page.set_dark(True)
    page.open("de")
    page.script("showScene('available')")
    page.picture("dark-german")
    page.set_dark(False)
