# SPDX-License-Identifier: ISC
"""Runs a Python program of ours in a copy of this process.

The copy has read Python's own modules already. Where a test starts the program hundreds of
times, that is most of the time that it takes.
"""
import os
import runpy
import signal
import subprocess
import sys
import tempfile
import traceback

LIMIT = 120  # seconds; far beyond what any of them takes


def run(program, words, cwd, stdin=b""):
    """As subprocess.run() with captured output; a program that does not end is killed."""
    words = [os.fsdecode(word) if isinstance(word, bytes) else str(word) for word in (program, *words)]
    with tempfile.TemporaryFile() as given, tempfile.TemporaryFile() as output, tempfile.TemporaryFile() as errors:
        given.write(stdin)
        given.seek(0)
        child = os.fork()
        if child == 0:
            become(words, cwd, given, output, errors)
        status = os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])
        output.seek(0)
        errors.seek(0)
        return subprocess.CompletedProcess(words, status, output.read(), errors.read())


def become(words, cwd, *files):
    status = 1
    try:
        signal.alarm(LIMIT)
        os.chdir(cwd)
        for number, file in enumerate(files):
            os.dup2(file.fileno(), number)
        sys.stdin, sys.stdout, sys.stderr = open(0), open(1, "w"), open(2, "w", errors="backslashreplace")
        sys.argv = words
        runpy.run_path(words[0], run_name="__main__")
        status = 0
    except SystemExit as end:
        status = end.code or 0
    except BaseException:
        traceback.print_exc()
    finally:
        try:
            sys.stdout.flush()
            sys.stderr.flush()
        finally:
            os._exit(status)  # whatever happens: this is a copy of the tests
