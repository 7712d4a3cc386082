# SPDX-License-Identifier: ISC
"""What the simulated router's web gateway calls: objects on the bus, through the `ubus` command,
and executable plugins, which a router's session service puts on the bus."""
import json
import os
import subprocess

PLUGINS = "/usr/libexec/rpcd"
PLUGIN_LIMIT = 120  # seconds

INVALID_ARGUMENT, NO_METHOD, TIMED_OUT = 2, 3, 7  # bus statuses


class Expired(Exception):
    """The gateway waited no longer; the object was not told and goes on."""


def to_text(raw):
    """Bytes that are no UTF-8 travel through unchanged, as they do in the C programs."""
    return raw.decode("utf-8", "surrogateescape")


def to_bytes(text):
    return text.encode("utf-8", "surrogateescape")


def encode(value):
    try:
        return to_bytes(json.dumps(value, ensure_ascii=False, separators=(",", ":")))
    except UnicodeEncodeError:
        return json.dumps(value).encode()


class Plugins:
    """Executable files that answer `list` with their signatures and `call METHOD` with JSON."""

    def __init__(self):
        self.signatures = {}
        for name in sorted(os.listdir(PLUGINS)) if os.path.isdir(PLUGINS) else []:
            listed = subprocess.run([f"{PLUGINS}/{name}", "list"], stdin=subprocess.DEVNULL,
                                    stdout=subprocess.PIPE, check=False)
            try:
                self.signatures[name] = json.loads(listed.stdout)
            except ValueError:
                print(f"gateway: {PLUGINS}/{name} list: no JSON", flush=True)

    def call(self, name, method, args, limit):
        if method not in self.signatures[name]:
            return NO_METHOD, None
        status, output = run([f"{PLUGINS}/{name}", "call", method], encode(args),
                             min(limit, PLUGIN_LIMIT))
        if status is None:
            if limit <= PLUGIN_LIMIT:
                raise Expired
            return TIMED_OUT, None
        try:
            answer = json.loads(to_text(output))
        except ValueError:
            return INVALID_ARGUMENT, None
        return (0, answer) if isinstance(answer, dict) else (INVALID_ARGUMENT, None)


def run(command, given, limit):
    """Returns (exit status or None when the limit passed, output). The program is left running."""
    with subprocess.Popen(["/bin/busybox", "setsid", *command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL) as program:
        try:
            output, _ = program.communicate(given, limit)
        except subprocess.TimeoutExpired:
            program.returncode = 0  # nobody waits for it
            return None, b""
        return program.returncode, output


def exists(name):
    return subprocess.run(["ubus", "list", name], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, check=False).returncode == 0


def call(name, method, args, limit):
    """Returns a bus status and the answer, None when there is none."""
    # The command's own limit lies beyond ours: which one passed is then clear.
    status, output = run(["ubus", "-S", "-t", str(int(limit) + 60), "call", name, method,
                          os.fsdecode(encode(args))], b"", limit)
    if status is None:
        raise Expired
    answer = json.loads(to_text(output)) if output.strip() else None
    return status, answer


TYPES = {"String": "string", "Integer": "number", "Boolean": "boolean", "Table": "object", "Array": "array"}


def signature(name):
    """Of an object on the bus: method -> argument -> type, as the gateway's `list` says it."""
    printed = subprocess.run(["ubus", "-v", "list", name], stdout=subprocess.PIPE, check=False).stdout
    methods = {}
    for line in to_text(printed).splitlines():
        if line.startswith("\t"):
            (method, args), = json.loads("{" + line.strip() + "}").items()
            methods[method] = {arg: TYPES.get(kind, "unknown") for arg, kind in args.items()}
    return methods


def listed():
    names = subprocess.run(["ubus", "list"], stdout=subprocess.PIPE, check=False).stdout
    return to_text(names).split()
