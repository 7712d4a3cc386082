# SPDX-License-Identifier: ISC
"""The commands in the documents: found, run, and their output compared.

A block that begins with ```console holds commands and what they printed:

    $ COMMAND     on the workstation, in the folder that the document's head names
    # COMMAND     on the simulated router; one router for the whole document
    ...           a line of dots stands for any lines

A command that ends in a backslash goes on in the next line. One that fails is followed
by `echo $?` and its status; without that every command has to end with 0. A comment in the document
changes how its commands are run:

    <!-- console: in=project -->    the workstation's commands run in the project's folder;
                                    otherwise in an empty one, with the tools in PATH
    <!-- console: before: COMMAND --> prepares something that a reader has no need to see
    <!-- console: serve=DIR -->     the router's update server serves DIR of that folder
    <!-- console: router=OPTION --> one more option for testbed/router
    <!-- console: not run: WHY -->  the next block is not run; test_documents.py lists these

All other code is none that could be run: see code_blocks.py.
"""
import dataclasses
import os
import pathlib
import re
import shutil
import subprocess
import time

from simulated_router import BUILD, PROJECT as project, WAIT, Router

SHOW_STATUS = "echo $?"

READERS = ("cat", "grep", "tail")

MONTH = "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec)"

# What differs from run to run. Both sides are changed alike before they are compared.
VARYING = [
    (re.compile(r"\b[0-9a-f]{64}\b"), "CHECKSUM"),
    (re.compile(r"@[0-9a-f]{8}\b"), "@ID"),
    (re.compile(r"\b(fwupdate|ubusd|routerd)\[\d+\]"), r"\1[PID]"),
    (re.compile(rf"\b{MONTH} +\d+ \d\d:\d\d:\d\d"), "DATE"),
    (re.compile(r"\d\d/[A-Z][a-z][a-z]/\d{4}:\d\d:\d\d:\d\d \+\d{4}"), "DATE"),
    (re.compile(r"\d+(\.\d+)? ?(ms|s|sec|seconds)\b"), "TIME"),
    (re.compile(r"/tmp/[a-z]+\.[A-Za-z0-9]{6}\b"), "/tmp/FOLDER"),
]


@dataclasses.dataclass
class Command:
    line: int  # in the document, from 1
    router: bool
    text: str
    expected: list = dataclasses.field(default_factory=list)
    status_follows: bool = False  # the next command is `echo $?`

    def fault(self, result):
        """What differs from the document, or None."""
        if not matches(self.expected, result.lines):
            return "\n".join(["it printed:", *result.lines])
        if result.status != 0 and not self.status_follows:
            return f"it ended with {result.status}, and no 'echo $?' shows that"
        return None


@dataclasses.dataclass
class Result:
    lines: list
    status: int


@dataclasses.dataclass
class Document:
    path: pathlib.Path
    commands: list
    not_run: list  # (first command, reason)
    before: list = dataclasses.field(default_factory=list)
    in_project: bool = False
    serve: str = ""
    options: list = dataclasses.field(default_factory=list)


def read(path):
    document = Document(path, [], [])
    reason, inside = None, False
    for number, line in enumerate(path.read_text().splitlines(), 1):
        note = re.fullmatch(r"<!-- console: (.*) -->", line)
        if note:
            reason = apply_note(document, note.group(1)) or reason
        elif line == "```console":
            inside, skip, reason = True, reason, None
            fresh = True
        elif line == "```":
            inside = False
        elif inside:
            fresh = read_line(document, number, line, skip, fresh)
    return document


def apply_note(document, note):
    if note.startswith("not run: "):
        return note[len("not run: "):]
    if note.startswith("before: "):
        document.before.append(note[len("before: "):])
        return None
    key, _, value = note.partition("=")
    if key == "in" and value == "project":
        document.in_project = True
    elif key == "serve":
        document.serve = value
    elif key == "router":
        document.options.append(value)
    else:
        raise ValueError(f"{document.path}: unknown note '{note}'")
    return None


def read_line(document, number, line, skip, fresh):
    """Adds one line of a block; returns whether the block still has no command."""
    last = document.commands[-1] if document.commands and not fresh else None
    if skip is not None:
        if line[:2] in ("$ ", "# "):
            document.not_run.append((re.split(r"\s+# ", line[2:])[0], skip))
        return False
    if last is not None and last.text.endswith("\\"):
        last.text = last.text[:-1] + line.removeprefix("> ").strip()
    elif line[:2] in ("$ ", "# "):
        command = Command(number, line[0] == "#", line[2:])
        if command.text == SHOW_STATUS and last is not None and last.router == command.router:
            last.status_follows = True
        document.commands.append(command)
    elif last is not None:
        last.expected.append(line)
    else:
        raise ValueError(f"{document.path}:{number}: output without a command")
    return False


def masked(line):
    for pattern, word in VARYING:
        line = pattern.sub(word, line)
    return line.rstrip()


def matches(expected, actual):
    """Whether the lines are the same but for what varies; "..." matches any lines."""
    pattern = "".join("(?:.*\n)*?" if line.strip() == "..." else re.escape(masked(line)) + "\n" for line in expected)
    return re.fullmatch(pattern, "".join(masked(line) + "\n" for line in actual)) is not None


class Runner:
    """Runs a document's commands in their order."""

    def __init__(self, document):
        self.document = document
        self.folder = project / "build/docs" / document.path.stem
        self.router = None
        self.status = 0  # of the command before

    def __enter__(self):
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        for text in self.document.before:
            output, status = self._here(text)
            assert status == 0, f"{self.document.path}: {text}\n{output}"
        return self

    def __exit__(self, *error):
        if self.router:
            self.router.__exit__(*error)

    def run(self, command):
        """Its Result. A log or a record may be written a moment later: whoever reads one
        looks again until it is as expected, for a while."""
        end = time.monotonic() + WAIT
        result = self._run(command)
        while (command.router and command.text.split()[0] in READERS and time.monotonic() < end
               and not matches(command.expected, result.lines)):
            result = self._run(command)
        self.status = result.status
        return result

    def _run(self, command):
        # Each command has a shell of its own: this one is told how the last one ended.
        text = f"(exit {self.status}); {command.text}" if command.text == SHOW_STATUS else command.text
        output, status = self._on_router(text) if command.router else self._here(text)
        plain = re.sub(r"\x1b\[[0-9;]*[A-Za-z]", "", output.replace("\r\n", "\n"))
        return Result(plain.rstrip("\n").splitlines(), status)

    def _here(self, text):
        environment = {**os.environ, "FWUPDATE_BUILD": str(BUILD), "LC_ALL": "C.UTF-8",
                       "PATH": f"{project}/publish:{project}/testbed:/usr/sbin:{os.environ['PATH']}"}
        folder = project if self.document.in_project else self.folder
        result = subprocess.run(["bash", "-c", text], cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=9 * WAIT)
        return result.stdout.decode(), result.returncode

    def _on_router(self, text):
        if self.router is None:
            served = self.folder / self.document.serve if self.document.serve else None
            self.router = Router(*self.document.options, server_root=served).__enter__()
        result = self.router.run(text)
        return result.output, result.status
