# SPDX-License-Identifier: ISC
"""Machines with Debian's nginx as its packages come, on a network of their own: nobody
else is reached, and nothing of this machine is changed."""
import pathlib
import shlex
import shutil
import subprocess
import sys

from simulated_router import PROJECT, wait_until

# Where a machine has its own: what nginx and its reader write.
OWN = ("/etc/nginx", "/srv", "/var/log/nginx", "/var/lib/nginx", "/var/cache", "/run", "/etc/passwd", "/etc/group", "/etc/hosts")


class Network:
    """A namespace for several machines; all of it ends with the first process."""

    def __init__(self, folder):
        self.folder = folder
        self.machines = []

    def __enter__(self):
        words = "ip link set lo up; ip link add name bridge type bridge; ip link set bridge up; echo; exec cat"
        self.process = subprocess.Popen(
            ["unshare", "--map-root-user", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc",
             "sh", "-c", words], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        assert self.process.stdout.readline() == b"\n"
        self.first = child_of(self.process.pid)
        return self

    def __exit__(self, *_):
        for machine in self.machines:
            machine.process.stdin.close()
            machine.process.wait()
        self.process.stdin.close()
        self.process.wait()
        self.process.stdout.close()

    def run(self, command, pid=None):
        enter = ["nsenter", "-t", str(pid or self.first), "-U", "-n", "-m", "-p", "--preserve-credentials"]
        return subprocess.run([*enter, "sh", "-c", command], cwd="/", capture_output=True, text=True, timeout=120)

    def machine(self, address):
        self.machines.append(Machine(self, address))
        return self.machines[-1]


def child_of(pid):
    def child():
        return pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return int(wait_until(child, "the namespace's first process runs")[0])


class Machine:
    def __init__(self, network, address):
        self.network, self.address = network, address
        self.folder = network.folder / address
        for place in OWN:
            (self.folder / place[1:]).parent.mkdir(parents=True, exist_ok=True)
            if place == "/etc/nginx":
                shutil.copytree(place, self.folder / place[1:], symlinks=True)
            elif pathlib.Path(place).is_dir():
                (self.folder / place[1:]).mkdir()
        # Only root is there; nginx's workers have another name, which is root's as well.
        (self.folder / "etc/passwd").write_text("root:x:0:0::/:/bin/sh\nwww-data:x:0:0::/:/bin/sh\n")
        (self.folder / "etc/group").write_text("root:x:0:\nwww-data:x:0:\n")
        (self.folder / "etc/hosts").write_text("127.0.0.1 localhost\n")
        mounts = "".join(f"mount --bind {self.folder}{place} {place}; " for place in OWN)
        words = f"mount --make-rprivate /; {mounts} ip link set lo up; echo $$; exec cat"
        self.process = subprocess.Popen(
            ["nsenter", "-t", str(network.first), "-U", "-n", "-m", "-p", "--preserve-credentials",
             "unshare", "--net", "--mount", "sh", "-c", words], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        inner = int(self.process.stdout.readline())
        name = f"m{len(network.machines)}"
        done = network.run(f"ip link add {name} type veth peer name eth0 netns {inner}; ip link set {name} master bridge up")
        assert done.returncode == 0, done.stderr
        self.inner = inner
        self.must(f"ip addr add {address}/24 dev eth0; ip link set eth0 up")

    def run(self, command):
        return self.network.run(f"exec nsenter -t {self.inner} -n -m sh -c {shlex.quote(command)}")

    def must(self, command):
        result = self.run(command)
        assert result.returncode == 0, f"{command}\n{result.stdout}{result.stderr}"
        return result.stdout + result.stderr

    def file(self, place):
        """A file of the machine as this side sees it."""
        return self.folder / place.lstrip("/")

    def ask(self, url, *more):
        """The body that a plain request gets, and the status after it."""
        program = ("import sys, urllib.request, urllib.error\n"
                   "try: a = urllib.request.urlopen(sys.argv[1], timeout=30)\n"
                   "except urllib.error.HTTPError as e: a = e\n"
                   "print(a.read().decode(errors=\"replace\"), a.status)")
        (self.folder / "ask.py").write_text(program)
        return self.must(f"{sys.executable} {self.folder}/ask.py \"{url}\"")

    def log(self):
        return [line.split("\t") for line in self.file("/var/log/nginx/update.log").read_text().splitlines()]


def documented(heading, page=PROJECT / "docs/update-server.md"):
    """The root's commands of the first console block below a heading of the page."""
    text = page.read_text().split(f"\n{heading}\n", 1)[1].split("```console\n", 1)[1].split("```", 1)[0]
    lines = text.replace("\\\n", " ").splitlines()
    return [line[2:] for line in lines if line.startswith("# ")]
