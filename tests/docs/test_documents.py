# SPDX-License-Identifier: ISC
"""Every command in the documents runs and prints what stands there; every file that they
name exists; the pictures are those of today."""
import hashlib
import html
import re
import subprocess

import console
import pytest

DOCUMENTS = sorted([*console.project.glob("*.md"), *console.project.glob("docs/*.md"), *console.project.glob("*/README.md")])
WITH_COMMANDS = [d for d in DOCUMENTS if "```console" in d.read_text()]

# What cannot be run by a test, and why. A document's "not run" must stand here.
NOT_RUN = {
    "./test.sh": "is what runs this test",
    "cmake --preset release && cmake --build --preset release": "has run before any test can",
}


def name(path):
    return str(path.relative_to(console.project))


@pytest.mark.parametrize("path", WITH_COMMANDS, ids=name)
def test_commands_print_what_the_document_says(path):
    document = console.read(path)
    with console.Runner(document) as runner:
        for command in document.commands:
            fault = command.fault(runner.run(command))
            assert fault is None, f"{name(path)}:{command.line}: {command.text}\n{fault}"


@pytest.mark.parametrize("path", WITH_COMMANDS, ids=name)
def test_commands_that_are_not_run_are_few_and_known(path):
    for command, _ in console.read(path).not_run:
        assert command in NOT_RUN


def test_readme_has_commands_and_less_than_120_lines():
    text = (console.project / "README.md").read_text()
    assert "```console" in text
    assert len(text.splitlines()) < 120


def links(path):
    text = re.sub(r"```.*?```", "", path.read_text(), flags=re.S)
    for target in re.findall(r"\]\(([^)#\s]+)\)", text):
        if "://" not in target:
            yield target


@pytest.mark.parametrize("path", DOCUMENTS, ids=name)
def test_links_lead_somewhere(path):
    missing = [target for target in links(path) if not (path.parent / target).exists()]
    assert missing == []


@pytest.mark.parametrize("path", [d for d in DOCUMENTS if d.name != "CHANGELOG.md"], ids=name)
def test_named_files_exist(path):
    """`docs/x.md`, `testbed/router`: a path in backquotes that begins with a folder of
    the project is a promise. A changelog may name what is gone."""
    folders = "src|docs|tests|testbed|publish|cli|package|bench|fuzz|cmake|web"
    text = re.sub(r"```.*?```", "", path.read_text(), flags=re.S)
    named = set(re.findall(rf"`((?:{folders})/[A-Za-z0-9_./-]*[A-Za-z0-9_-])`", text))
    missing = sorted(n for n in named if not (console.project / n).exists() and "build" not in n)
    assert missing == []


def manual_pages():
    return sorted(console.project.glob("docs/man/*"))


def test_there_are_three_manual_pages():
    assert {p.name for p in manual_pages()} == {"fwupdate.8", "fwupdate-publish.1", "fwupdate-cli.1"}


@pytest.mark.parametrize("page", manual_pages(), ids=name)
def test_manual_page_is_clean(page):
    result = subprocess.run(["mandoc", "-T", "lint", "-W", "style", page], capture_output=True, text=True)
    # Which manual pages this machine has is not our page's matter.
    complaints = [line for line in result.stdout.splitlines() if "referenced manual not found" not in line]
    assert complaints == []


@pytest.mark.parametrize("source", sorted(console.project.glob("docs/diagrams/*.dot")), ids=name)
def test_picture_was_drawn_from_the_text_beside_it(source):
    """docs/draw-diagrams leaves the checksum of the text in the picture."""
    picture = source.with_suffix(".svg").read_text()
    assert f"from {hashlib.sha256(source.read_bytes()).hexdigest()} " in picture, "run docs/draw-diagrams"


def test_recorded_demo_shows_the_steps_of_the_demo():
    steps = (console.project / "testbed/demo-steps.sh").read_text()
    body = steps[steps.index("show_update() {"):steps.index("show_refusal() {")]
    headings = re.findall(r'say "(.*)"', body)
    picture = html.unescape(re.sub("<[^>]*>", "", (console.project / "docs/demo.svg").read_text()))
    assert len(headings) >= 5
    assert [h for h in headings if f"== {h}" not in picture] == [], "run docs/record-demo"
