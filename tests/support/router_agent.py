#!/usr/bin/python3
# SPDX-License-Identifier: ISC
"""The Python tests' hand on the simulated router: runs there, and starts commands for
them, on pseudo-terminals or without. simulated_router.py talks to it through a
unix socket: router_agent.py SOCKET.
"""
import fcntl
import multiprocessing.managers
import os
import pty
import select
import signal
import struct
import sys
import termios
import threading
import time

ROWS = 24
A_MOMENT = 10  # seconds, for a busy machine


class Program:
    """A running command. `columns` gives it a terminal of its own that wide, with itself
    as the foreground process; otherwise its input is `input` and its output a pipe."""

    def __init__(self, command, columns=None, environment=None, input=b""):
        self._output = b""
        self._ended = False
        self._news = threading.Condition()
        self._wake = os.pipe()
        # Its kind does not depend on where the tests were started.
        terminal = {"TERM": "xterm"} if columns else {}
        environment = {**os.environ, **terminal, **(environment or {})}
        if columns:
            self._pid, self._fd = self._fork_on_terminal(columns)
        else:
            self._pid, self._fd = self._fork_on_pipes(input)
        if self._pid == 0:
            # A shell's background job, as this is, ignores these.
            for number in (signal.SIGINT, signal.SIGQUIT, signal.SIGPIPE):
                signal.signal(number, signal.SIG_DFL)
            os.execvpe(command[0], command, environment)
        self._status = None
        threading.Thread(target=self._read, daemon=True).start()

    @staticmethod
    def _fork_on_terminal(columns):
        main, terminal = pty.openpty()
        fcntl.ioctl(main, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, columns, 0, 0))
        pid = os.fork()
        if pid == 0:
            os.close(main)
            os.login_tty(terminal)
        else:
            os.close(terminal)
        return pid, main

    @staticmethod
    def _fork_on_pipes(text):
        source, source_end = os.pipe()
        output, output_end = os.pipe()
        pid = os.fork()
        if pid == 0:
            os.setsid()
            os.dup2(source, 0)
            os.dup2(output_end, 1)
            os.dup2(output_end, 2)
            os.closerange(3, 1000)
            return pid, -1
        os.write(source_end, text)
        for fd in (source, source_end, output_end):
            os.close(fd)
        return pid, output

    def _read(self):
        while True:
            ready, _, _ = select.select([self._fd, self._wake[0]], [], [])
            if self._wake[0] in ready:
                break
            try:
                piece = os.read(self._fd, 65536)
            except OSError:  # the terminal's last user is gone
                piece = b""
            if not piece:
                break
            with self._news:
                self._output += piece
                self._news.notify_all()
        with self._news:
            for fd in (self._fd, *self._wake):
                os.close(fd)
            self._ended = True
            self._news.notify_all()

    def pid(self):
        return self._pid

    def output(self):
        with self._news:
            return self._output

    def expect(self, text, seconds):
        """Waits until `text` (bytes) has been printed; returns what was printed so far."""
        with self._news:
            self._news.wait_for(lambda: text in self._output or self._ended, seconds)
            if text not in self._output:
                raise AssertionError(f"{text!r} did not come; there is {self._output!r}")
            return self._output

    def write(self, data):
        os.write(self._fd, data)

    def resize(self, columns):
        fcntl.ioctl(self._fd, termios.TIOCSWINSZ, struct.pack("HHHH", ROWS, columns, 0, 0))

    def signal(self, number):
        assert self._pid > 1 and self._status is None
        os.kill(self._pid, number)

    def hang_up(self):
        """The terminal's other end goes away."""
        with self._news:
            if not self._ended:
                os.write(self._wake[1], b"x")
            self._news.wait_for(lambda: self._ended)

    def wait(self, seconds):
        """The exit status, negative for a signal."""
        deadline = time.monotonic() + seconds
        while self._status is None:
            pid, status = os.waitpid(self._pid, os.WNOHANG)
            if pid:
                self._status = os.waitstatus_to_exitcode(status)
            elif time.monotonic() > deadline:
                raise AssertionError(f"still running; it printed {self.output()!r}")
            else:
                time.sleep(0.01)
        with self._news:
            # A process left behind may hold the output open: its end is not waited for
            # longer than a moment.
            self._news.wait_for(lambda: self._ended, A_MOMENT)
        return self._status


class Agent(multiprocessing.managers.BaseManager):
    """Serves Program."""


def main():
    Agent.register("Program", Program)
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)
    Agent(address=sys.argv[1], authkey=b"router").get_server().serve_forever()


if __name__ == "__main__":
    main()
