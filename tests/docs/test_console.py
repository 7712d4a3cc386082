# SPDX-License-Identifier: ISC
"""The checker of the documents itself: a document that is wrong must not pass."""
import code_blocks
import console
import pytest


def document(tmp_path, text):
    path = tmp_path / "page.md"
    path.write_text(text)
    return console.read(path)


@pytest.mark.parametrize("expected, actual, same", [
    (["a"], ["a"], True),
    (["a"], ["b"], False),
    (["a"], [], False),
    ([], ["a"], False),
    (["a.c"], ["abc"], False),
    (["a", "..."], ["a"], True),
    (["a", "...", "d"], ["a", "b", "c", "d"], True),
    (["a", "...", "d"], ["a", "b", "c"], False),
    (["fwupdate[12]: x"], ["fwupdate[345]: x"], True),
    (["took 1.5 s"], ["took 23 s"], True),
    (["took 1.5 m"], ["took 23 m"], False),
    (["Nov 21 18:00:00 router x"], ["Dec  1 01:02:03 router x"], True),
    (["'o' @0123abcd"], ["'o' @89abcdef"], True),
    (["a "], ["a"], True),
])
def test_output_is_compared_but_for_what_varies(expected, actual, same):
    assert console.matches(expected, actual) is same


def test_commands_and_outputs_are_read(tmp_path):
    page = document(tmp_path, "x\n```console\n$ echo a \\\n    b\na b\n# id\nroot\n```\n```\n$ not\n```\n")
    assert [(c.line, c.router, c.text, c.expected) for c in page.commands] == [
        (3, False, "echo a b", ["a b"]), (6, True, "id", ["root"])]


def test_notes_are_read(tmp_path):
    page = document(tmp_path, "<!-- console: in=project -->\n<!-- console: serve=s -->\n<!-- console: router=--quiet -->\n"
                              "<!-- console: not run: because -->\n```console\n$ ./x\nout\n```\n```console\n$ y\n```\n")
    assert (page.in_project, page.serve, page.options) == (True, "s", ["--quiet"])
    assert page.not_run == [("./x", "because")]
    assert [c.text for c in page.commands] == ["y"]


@pytest.mark.parametrize("text", ["```console\noutput first\n```\n", "<!-- console: what=ever -->\n"])
def test_document_that_makes_no_sense_is_refused(tmp_path, text):
    with pytest.raises(ValueError):
        document(tmp_path, text)


def test_commands_run_where_they_belong(tmp_path):
    page = document(tmp_path, "```console\n$ echo $((6 * 7)) >file; cat file\n42\n# hostname\nrouter\n```\n")
    with console.Runner(page) as runner:
        outputs = [runner.run(command) for command in page.commands]
        assert (runner.folder / "file").read_text() == "42\n"
    assert [o.lines for o in outputs] == [["42"], ["router"]]


def test_what_goes_before_is_run_first_and_has_to_succeed(tmp_path):
    page = document(tmp_path, "<!-- console: before: echo a >file -->\n```console\n$ cat file\na\n```\n")
    with console.Runner(page) as runner:
        assert page.commands[0].fault(runner.run(page.commands[0])) is None
    with pytest.raises(AssertionError, match="cannot"):
        console.Runner(document(tmp_path, "<!-- console: before: cat /cannot -->\n")).__enter__()


@pytest.mark.parametrize("prompt", ["$", "#"])
def test_command_that_fails_in_silence_is_a_fault(tmp_path, prompt):
    page = document(tmp_path, f"```console\n{prompt} false\n{prompt} true\n```\n")
    with console.Runner(page) as runner:
        faults = [command.fault(runner.run(command)) for command in page.commands]
    assert faults == ["it ended with 1, and no 'echo $?' shows that", None]


@pytest.mark.parametrize("prompt", ["$", "#"])
@pytest.mark.parametrize("shown, faults", [("3", [None, None]), ("0", [None, "it printed:\n3"])])
def test_status_that_is_shown_is_compared(tmp_path, prompt, shown, faults):
    page = document(tmp_path, f"```console\n{prompt} sh -c 'exit 3'\n{prompt} echo $?\n{shown}\n```\n")
    with console.Runner(page) as runner:
        assert [command.fault(runner.run(command)) for command in page.commands] == faults


def test_status_shown_on_the_other_side_does_not_count(tmp_path):
    page = document(tmp_path, "```console\n$ false\n# echo $?\n```\n")
    assert not page.commands[0].status_follows


def test_colours_are_taken_out(tmp_path):
    page = document(tmp_path, "```console\n$ printf '\\033[31mred\\033[0m\\r\\n'\nred\n```\n")
    with console.Runner(page) as runner:
        assert runner.run(page.commands[0]).lines == ["red"]


@pytest.mark.parametrize("text, line, reason", [
    ("Run\n\n    ls\n", 3, "an indented block"),
    ("```sh\nls\n```\n", 1, "a block of 'sh'"),
    ("```\nls\n```\n", 1, "a block of ''"),
    ("```text\n/srv/update\ntestbed/router\n```\n", 3, "a command in a block of 'text'"),
    ("```text\n$ ls\n```\n", 2, "a command in a block of 'text'"),
    ("```uci\nuci set x.y=1\n```\n", 2, "a command in a block of 'uci'"),
    ("- item\n\ntext\n\n    ls\n", 5, "an indented block"),
])
def test_command_outside_of_a_console_block_is_found(text, line, reason):
    (number, found), = code_blocks.faults(text)
    assert number == line and found.startswith(reason)


@pytest.mark.parametrize("text", [
    "```console\n$ ls\n```\n",
    "```cpp\n#include <x>\n\n    int x;\n```\n",
    "```uci\nconfig login\n\toption username 'viewer'\n```\n",
    "- item\n    that goes on\n\n    and on\n",
    "1. item\n\n    and on\n",
    "a line\n    that goes on\n",
])
def test_other_code_is_left_alone(text):
    assert list(code_blocks.faults(text)) == []


def test_comment_behind_a_command_that_is_not_run_is_left_out(tmp_path):
    page = document(tmp_path, "<!-- console: not run: why -->\n```console\n$ ./x --y    # a comment\n```\n")
    assert page.not_run == [("./x --y", "why")]
