# SPDX-License-Identifier: ISC
"""The virtual router as an object: start, command, power cut.

QEMU emulates a board with a 32-bit ARM processor and 64 MiB of SPI NOR flash, which
is a file. Three channels lead to it, all of them socket pairs: the console (ttyS4),
the port that takes commands (ttyS0, see rootfs/usr/libexec/command-port), and the
emulator's own monitor. No port of this machine is opened.
"""

import base64
import json
import os
import re
import shlex
import shutil
import socket
import subprocess
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
PROJECT = os.path.dirname(os.path.dirname(HERE))
WORK = os.path.join(PROJECT, "build", "vm")
FACTORY_FLASH = os.path.join(WORK, "flash")
FIRMWARE = os.path.join(WORK, "firmware-r1300.bin")
FLASH_SIZE = 64 << 20

# Seconds to wait for anything: on a busy machine a start takes minutes.
PATIENCE = float(os.environ.get("FWUPDATE_VM_WAIT", 400))
READY = b"\0ready\0"
STOPPED = b"\0stopped\0"  # sent by the boot loader
ANSWER = re.compile(rb"\0(ready|stopped|\d+)\0")
POWER_DOWN = rb"reboot: (Power down|System halted)"


class MachineError(Exception):
    """The machine did not do what was asked for; the text says what it did."""


class Restarted(MachineError):
    """The router started again while a command ran."""


class NoFirmware(MachineError):
    """The boot loader has no firmware to start and waits at its prompt."""


def escaped(value):
    """As a value among QEMU's options."""
    return value.replace(",", ",,")


class Channel:
    """One end of a socket pair, and all that was received from the other."""

    def __init__(self, on_data=None):
        self.socket, self.other = socket.socketpair()
        self.received = b""
        self.closed = False
        self.changed = threading.Condition()
        self.on_data = on_data
        threading.Thread(target=self._receive, daemon=True).start()

    def _receive(self):
        while True:
            try:
                data = self.socket.recv(65536)
            except OSError:
                data = b""
            with self.changed:
                self.received += data
                self.closed = not data
                self.changed.notify_all()
            if not data:
                return
            if self.on_data:
                self.on_data(data)

    def send(self, data):
        self.socket.sendall(data)

    def wait(self, pattern, begin=0, timeout=PATIENCE):
        """The first match behind `begin`, or an error when time is up or QEMU has ended."""
        end = time.monotonic() + timeout
        with self.changed:
            while True:
                found = re.compile(pattern).search(self.received, begin)
                if found:
                    return found
                left = end - time.monotonic()
                if self.closed or left <= 0:
                    why = "the machine ended" if self.closed else f"{timeout:.0f} s are over"
                    raise MachineError(f"{why}; no {pattern!r} after {self.received[begin:][-800:]!r}")
                self.changed.wait(left)


class Machine:
    """One virtual router, switched on. `folder` gets its console's log and its server's.

    state: go on from a saved machine; `flash` has to be as it was then
    write_log: an empty file for all that is written to flash, in order
    on_console: is called with each piece of text on the console
    """

    def __init__(self, folder, flash, server_root, server_rate=0, state=None, write_log=None, on_console=None):
        os.makedirs(folder, exist_ok=True)
        self.server_log = os.path.join(folder, "server.log")
        self.console_log = os.path.join(folder, "console.log")
        open(self.server_log, "a", encoding="utf-8").close()
        self.log = open(self.console_log, "ab", buffering=0)
        self.on_console = on_console
        self.console = Channel(self._on_console)
        self.control = Channel()
        self.monitor = Channel()
        self.answered = 0  # what of the control channel was read
        channels = [self.console, self.control, self.monitor]
        self.process = subprocess.Popen(
            self._arguments(str(server_root), server_rate, state) + ["-drive", self._drive(str(flash), write_log)],
            stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log,
            pass_fds=[channel.other.fileno() for channel in channels],
        )
        for channel in channels:
            channel.other.close()
        self._ask("qmp_capabilities")
        if state:
            self._await_status("query-status", ("paused",))
            self._ask("cont")

    @staticmethod
    def _drive(flash, write_log):
        if not write_log:
            return f"if=mtd,format=raw,file={escaped(flash)}"
        return (f"if=mtd,driver=blklogwrites,file.driver=file,file.filename={escaped(flash)},"
                f"log.driver=file,log.filename={escaped(str(write_log))}")

    def _arguments(self, server_root, server_rate, state):
        server = [os.path.join(HERE, "update-server"), os.path.abspath(server_root), self.server_log, str(server_rate)]
        command = " ".join(shlex.quote(word) for word in server)
        arguments = ["setpriv", "--pdeathsig", "KILL"]  # it does not outlive us
        arguments += ["qemu-system-arm", "-M", "ast2600-evb", "-accel", "tcg,tb-size=128", "-m", "256M"]
        arguments += ["-nodefaults", "-display", "none"]
        for name, channel in (("console", self.console), ("control", self.control), ("monitor", self.monitor)):
            arguments += ["-chardev", f"socket,id={name},fd={channel.other.fileno()}"]
        arguments += ["-serial", "chardev:console", "-serial", "chardev:control"]
        arguments += ["-mon", "chardev=monitor,mode=control"]
        arguments += ["-kernel", os.path.join(WORK, "kernel"), "-initrd", os.path.join(WORK, "loader.cpio.gz")]
        arguments += ["-dtb", os.path.join(WORK, "router.dtb")]
        # Programs at fixed addresses are translated once and used again: 40 % less time.
        arguments += ["-append", "console=ttyS4,115200n8 panic=5 norandmaps quiet"]
        arguments += ["-nic", "user,mac=02:00:00:00:00:10,restrict=on,net=192.0.2.0/24,host=192.0.2.254,"
                      f"dns=192.0.2.253,guestfwd=tcp:192.0.2.1:80-cmd:{escaped(command)}"]
        if state:
            arguments += ["-incoming", f"exec:cat {shlex.quote(str(state))}"]
        return arguments

    def _on_console(self, data):
        self.log.write(data)
        if self.on_console:
            self.on_console(data)

    def _ask(self, command, **arguments):
        """Asks the emulator's monitor; returns its answer."""
        begin = len(self.monitor.received)
        self.monitor.send(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        answer = json.loads(self.monitor.wait(rb'\{"(return|error)": [^\n]*\n', begin).group())
        if "error" in answer:
            raise MachineError(f"{command}: {answer['error']}")
        return answer["return"]

    def _await_status(self, query, wanted):
        end = time.monotonic() + PATIENCE
        while (status := self._ask(query).get("status")) not in wanted:
            if status == "failed" or time.monotonic() > end:
                raise MachineError(f"the machine's state could not be moved ({query}: {status})")
            time.sleep(0.05)

    def wait_up(self, timeout=PATIENCE):
        """Until the router has started, or started again."""
        found = self.control.wait(READY + b"|" + STOPPED, self.answered, timeout)
        self.answered = found.end()
        if found.group() == STOPPED:
            raise NoFirmware("no firmware starts; the boot loader waits at its prompt")

    def run(self, command, timeout=PATIENCE):
        """Runs a shell command; returns its exit status and what it printed."""
        self.control.send(base64.b64encode(command.encode()) + b"\n")
        found = self.control.wait(ANSWER.pattern, self.answered, timeout)
        output = self.control.received[self.answered:found.start()]
        if found.group() in (READY, STOPPED):
            raise Restarted(f"the router started again during: {command}")
        self.answered = found.end()
        return int(found.group(1)), output.decode(errors="replace")

    def output(self, command, timeout=PATIENCE):
        """What a command prints, without the last line's end; it has to succeed."""
        status, text = self.run(command, timeout)
        if status != 0:
            raise MachineError(f"status {status} of: {command}\n{text}")
        return text.rstrip("\n")

    def wait_console(self, pattern, begin=0, timeout=PATIENCE):
        """Until the console has shown it; returns where in the console's text it ends."""
        return self.console.wait(pattern.encode(), begin, timeout).end()

    def save(self, state):
        """Stops the machine, writes its state to a file and ends it."""
        self._ask("stop")
        self._ask("migrate", uri=f"exec:cat >{shlex.quote(str(state))}")
        self._await_status("query-migrate", ("completed",))
        self.quit()

    def quit(self):
        """Ends the machine in order: what it wrote to flash is in the file."""
        if self.process.poll() is None:
            try:
                self._ask("quit")
            except (MachineError, OSError):
                pass  # it may be gone before it answers
        self.process.wait(60)
        self._close()

    def cut_power(self):
        """Ends the machine at once."""
        self.process.kill()
        self.process.wait(60)
        self._close()

    def _close(self):
        for channel in (self.console, self.control, self.monitor):
            channel.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.cut_power()


def factory_flash(path):
    """A flash file as a router leaves the factory with."""
    shutil.copyfile(FACTORY_FLASH, path)
    return path
