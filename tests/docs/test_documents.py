# SPDX-License-Identifier: ISC
"""Every command in the documents runs and prints what stands there; every file that they
name exists; the pictures are those of today."""
import hashlib
import html
import re
import subprocess

import code_blocks
import console
import pytest

DOCUMENTS = sorted([*console.project.glob("*.md"), *console.project.glob("*/*.md")])
WITH_COMMANDS = [d for d in DOCUMENTS if "```console" in d.read_text()]

# What no test of the documents runs, and why. Every "not run" stands here, and no more.
NOT_RUN = {
    "it runs this test, or has run before any test can": [
        "./test.sh", "./test.sh --all", "cmake --preset release && cmake --build --preset release",
        "cmake --preset debug && cmake --build --preset debug", "cmake --workflow --preset debug"],
    "it needs a container program": [
        'docker run --rm -it --privileged -v "$PWD":/fwupdate -w /fwupdate debian:12 ./test.sh'],
    "it is a test run of its own, or takes many minutes": [
        "./test.sh --vm", "./test.sh --mutants 40 --seed 7", "tests/mutate --count 10 --files 'src/verify/*' --jobs 2",
        "tests/mutate --count 10 --of python",
        "bench/run --write", "bench/router-curl", "bench/soak", "bench/soak 300",
        "fuzz/run mtd", "fuzz/run mtd 3600", "fuzz/run --all 60"],
    "it installs packages that the tests do without": [
        "./setup.sh --fuzz", "./setup.sh --vm"],
    "it boots a whole machine": [
        "./demo.sh --vm", "./demo.sh --vm --fail", "./demo.sh --vm --bad", "testbed/vm", "testbed/vm -- ubus call fwupdate check",
        "testbed/vm --flash FILE"],
    "it waits for its user": [
        "testbed/router", "./demo.sh --web", "fwupdate-cli update", "pid=$(pidof fwupdate); ln -s /realproc/$pid /proc/",
        "LD_LIBRARY_PATH=/host/usr/lib/x86_64-linux-gnu /host/usr/bin/gdb -p $pid"],
    "the simulated router runs the daemon without the service": [
        "uci set fwupdate.daemon.debug=1; uci commit fwupdate; /etc/init.d/fwupdate reload", "logread -e fwupdate"],
    "it changes this machine's web server; tests/publish runs these lines with one of its own": [
        "apt-get install nginx", "rm /etc/nginx/sites-enabled/default",
        "cp publish/server/update.conf /etc/nginx/conf.d/", "cp publish/server/rollout.conf /etc/nginx/",
        "cp publish/server/update-server.conf /etc/nginx/sites-enabled/",
        "mkdir -p /srv/update && cp -r publish/server/nothing /srv/update/", "nginx -t && nginx -s reload",
        "sed 's/origin.example.com/198.51.100.1/' publish/server/update-cache.conf"
        " >/etc/nginx/sites-enabled/update-cache.conf"],
    "it needs this server to be there": [
        "fwupdate-publish verify http://update.example.com/update.xml --out /srv/update/model-x/stable \\",
        "uci set system.@system[0].fwupdate_xml_url=http://update.example.com/update.xml && uci commit system",
        "fwupdate-cli check"],
    "it needs an account at an object store": [
        "rclone copy /srv/update/model-x/stable store:updates/model-x/stable --include '/releases/**'",
        "rclone copyto /srv/update/model-x/stable/update.xml store:updates/model-x/stable/update.xml",
        "fwupdate-publish verify https://updates.example.com/model-x/stable/update.xml \\"],
    "it makes a key, and puts it into a build tree": [
        "usign -G -p maker.pub -s maker.sec", "cp maker.pub files/etc/fwupdate/keys/$(usign -F -p maker.pub)"],
    "it needs a real router": ["sysupgrade -b /tmp/backup.tar.gz"],
    "it needs the router system's build tree": [
        "[ -f feeds.conf ] || cp feeds.conf.default feeds.conf", "make tools/install toolchain/install",
        'echo "src-link fwupdate /path/to/the/clone/package" >>feeds.conf',
        "./scripts/feeds update -a && ./scripts/feeds install -a -p fwupdate", "make menuconfig",
        "make package/fwupdate/compile"],
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


@pytest.mark.parametrize("path", DOCUMENTS, ids=name)
def test_commands_stand_nowhere_but_in_console_blocks(path):
    assert list(code_blocks.faults(path.read_text())) == []


def test_commands_that_are_not_run_are_known():
    not_run = {command for path in WITH_COMMANDS for command, _ in console.read(path).not_run}
    assert not_run == {command for commands in NOT_RUN.values() for command in commands}


def test_what_is_run_stands_in_the_one_list():
    """./test.sh --help lists all that can be run: every option that a document or the automatic run uses."""
    help_text = subprocess.run(["./test.sh", "--help"], cwd=console.project, capture_output=True, text=True,
                               check=True).stdout
    listed = set(re.findall(r"--[a-z-]+", re.sub(r"\([^)]*\)", "", help_text)))
    uses = [*DOCUMENTS, console.project / ".ci/run"]
    lines = [line for path in uses if path.name != "CHANGELOG.md"
             for line in re.findall(r"\./test\.sh((?: --?[a-z-]+[^-`\n]*)+)", path.read_text())]
    used = {option for line in lines for option in re.findall(r"--[a-z-]+", line)}
    assert {"--all", "--second-try", "--mutants"} <= used
    assert used - listed == set()


def test_readme_has_commands_and_less_than_120_lines():
    text = (console.project / "README.md").read_text()
    assert "```console" in text
    assert len(text.splitlines()) < 120


def links(path):
    text = re.sub(r"```.*?```", "", path.read_text(), flags=re.S)
    for target in re.findall(r"\]\(([^)#\s]+)\)", text):
        if "://" not in target:
            yield target


def test_index_has_every_page():
    folder = console.project / "docs"
    assert {path.name for path in folder.glob("*.md")} - {"README.md"} - set(links(folder / "README.md")) == set()


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


def test_every_program_has_a_manual_page():
    assert {p.name for p in manual_pages()} == {"fwupdate.8", "fwupdate-publish.1", "fwupdate-fleet.1", "fwupdate-cli.1"}


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


def test_recorded_picture_shows_what_the_command_prints():
    """The lines of README's dialogue, which the first test compares with the command."""
    dialogue = next(re.finditer(r"```console\n(.*?)```", (console.project / "README.md").read_text(), re.S)).group(1)
    lines = {line for line in dialogue.splitlines() if line and not line.startswith(("#", "exit status"))}
    picture = html.unescape(re.sub("<[^>]*>", "", (console.project / "docs/demo.svg").read_text()))
    assert len(lines) >= 5
    assert [line for line in sorted(lines) if line not in picture] == [], "run docs/record-demo"
    assert "# fwupdate-cli check" in picture and "# fwupdate-cli update" in picture
