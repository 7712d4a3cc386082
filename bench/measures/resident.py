# SPDX-License-Identifier: ISC
"""Memory that stays resident, and what waiting costs."""
import contextlib
import pathlib
import socket
import subprocess
import threading
import time

from measures import router
from measures.samples import Row, interleave

UPDATES = 100
LONG_LIVES = 6  # of each daemon have so many updates, the one that does not count included
ALLOWED = 300  # KiB more than the least object with the same libraries
MINUTE = 60.0  # seconds that the waiting is watched
ONE_A_SECOND = "at most 61"  # wake-ups of that minute, whose ends may cut a second
STALL_PORT = 8082  # the manifest "stalled" names it


def watched(label, process, into):
    """Adds PSS and private memory of a process to the samples."""
    pss, private = router.memory(process.pid)
    into.setdefault(f"{label}: PSS", []).append(pss)
    into.setdefault(f"{label}: private", []).append(private)


def live_through(label, program, into):
    """One daemon's life: start, check, one update; a hundred in the first lives."""
    router.offer("small")
    with router.daemon(program=program) as process:
        watched(f"{label}, after start", process, into)
        is_long = len(into[f"{label}, after start: PSS"]) <= LONG_LIVES
        router.expect(router.call("check"), "error_code", "0")
        watched(f"{label}, after a check", process, into)
        for done in range(1, UPDATES + 1 if is_long else 2):
            answer = router.call("update", force="1", timeout=60)
            router.expect(answer, "error_code", "0")
            if done == 1:
                watched(f"{label}, after an update", process, into)
        if is_long:
            watched(f"{label}, after {UPDATES} updates", process, into)


@contextlib.contextmanager
def peer(*command, ready):
    """Somebody else's daemon, until `ready` says that it serves."""
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.DEVNULL)
    try:
        end = time.monotonic() + router.LONGEST
        while not ready():
            if process.poll() is not None or time.monotonic() > end:
                raise RuntimeError(f"{command[0]} does not serve")
            time.sleep(0.05)
        yield process
    finally:
        process.terminate()
        process.wait(timeout=router.LONGEST)


RAUC_CONFIG = """[system]
compatible=bench
bootloader=noop
[slot.rootfs.0]
device=/tmp/slot
"""
BUS_CONFIG = """<busconfig><listen>unix:path=/tmp/dbus</listen><auth>EXTERNAL</auth>
<policy context='default'><allow user='*'/><allow own='*'/>
<allow send_type='method_call'/><allow send_type='signal'/>
<allow send_requested_reply='true' send_type='method_return'/>
<allow receive_type='method_call'/><allow receive_type='method_return'/>
<allow receive_type='error'/><allow receive_type='signal'/></policy></busconfig>
"""


def prepare_peers():
    """The least with which they start: a bus and a slot for one, a certificate for the other."""
    pathlib.Path("/tmp/rauc.conf").write_text(RAUC_CONFIG)
    pathlib.Path("/tmp/slot").touch()
    pathlib.Path("/tmp/dbus.conf").write_text(BUS_CONFIG)
    pathlib.Path("/tmp/www").mkdir(exist_ok=True)
    pathlib.Path("/tmp/openssl.cnf").write_text("[req]\ndistinguished_name=name\n[name]\n")
    router.run("/host/usr/bin/openssl", "req", "-config", "/tmp/openssl.cnf", "-x509", "-newkey",
               "rsa:2048", "-nodes", "-subj", "/CN=bench", "-keyout", "/tmp/key.pem", "-out",
               "/tmp/cert.pem", stderr=subprocess.DEVNULL)


def names_on(bus):
    """What has a name on that bus; nothing while nobody answers."""
    return subprocess.run(
        ["/host/usr/bin/dbus-send", f"--bus={bus}", "--print-reply",
         "--dest=org.freedesktop.DBus", "/org/freedesktop/DBus",
         "org.freedesktop.DBus.ListNames"], check=False, stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL, text=True, timeout=router.LONGEST).stdout


def peers(into):
    """What two other updaters keep in memory when they wait for work."""
    bus = "unix:path=/tmp/dbus"
    with peer("/host/usr/bin/dbus-daemon", "--config-file=/tmp/dbus.conf", "--nofork",
              ready=lambda: names_on(bus)):
        with peer("/usr/bin/env", f"DBUS_SYSTEM_BUS_ADDRESS={bus}", "/host/usr/bin/rauc",
                  "--conf=/tmp/rauc.conf", "service",
                  ready=lambda: "de.pengutronix.rauc" in names_on(bus)) as process:
            watched("rauc service", process, into)
    with peer("/host/usr/bin/swupdate", "-k", "/tmp/cert.pem", "-w", "-r /tmp/www -p 8081",
              ready=lambda: answers(8081)) as process:
        watched("swupdate", process, into)
        for child in router.children(process.pid):
            pss, private = router.memory(child)
            into["swupdate: PSS"][-1] += pss
            into["swupdate: private"][-1] += private


def answers(port):
    """True when somebody listens there."""
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def stand_by(label, program, into):
    """A least object's life."""
    with router.service(program, wait_for="least") as process:
        watched(label, process, into)


def memory(runs):
    """PSS and private memory, of a new process each time. What only costs time after an update
    is replaced: the daemon waits two seconds, and the installer reads the image."""
    router.replace_tool("/bin/sleep", "exit 0")
    router.replace_tool("/sbin/sysupgrade", "exit 0")
    prepare_peers()
    into = {}
    same = "least_object_same_libraries"
    variants = {
        "least_object": lambda: stand_by("least_object", router.TOOLS / "least_object", into),
        same: lambda: stand_by(same, router.TOOLS / same, into),
        "fwupdate": lambda: live_through("fwupdate", router.DAEMON, into),
        "peers": lambda: peers(into),
    }
    small = router.ROUTER_CURL
    if router.has_router_curl():
        suffix = ", router's libcurl"
        variants["least_object" + suffix] = lambda: stand_by(
            "least_object" + suffix, small / "least_object", into)
        variants["fwupdate" + suffix] = lambda: live_through(
            "fwupdate" + suffix, small / "fwupdate", into)
    interleave(runs, variants)
    return memory_rows({label: samples[1:] for label, samples in into.items()})


def memory_rows(into):
    """Each kind beside what it is to be compared with."""
    rows = []
    for kind in ("PSS", "private"):
        for label in ("fwupdate", "fwupdate, router's libcurl"):
            least = ("least_object, router's libcurl" if "router" in label
                     else "least_object_same_libraries")
            for when in ("start", "a check", "an update", f"{UPDATES} updates"):
                samples = into.get(f"{label}, after {when}: {kind}")
                if samples:
                    rows.append(Row(f"{label}, after {when}: {kind}", "KiB", samples,
                                    into[f"{least}: {kind}"], least.replace("_", " ")))
            check = into.get(f"{label}, after a check: {kind}")
            if check and "router" in label:
                over = [ours - base for ours, base in zip(check, into[f"{least}: {kind}"])]
                rows.append(Row(f"{label}, after a check, over the least object: {kind}", "KiB",
                                over, [ALLOWED], "what is allowed", "<= 1"))
            after = into.get(f"{label}, after {UPDATES} updates: {kind}")
            if after:
                rows.append(Row(f"{label}, {UPDATES} updates beside the first: {kind}", "KiB",
                                after, into[f"{label}, after an update: {kind}"],
                                "after one update", "<= 1.02"))
        for other in ("least_object", "rauc service", "swupdate"):
            rows.append(Row(f"fwupdate, after a check: {kind}", "KiB",
                            into[f"fwupdate, after a check: {kind}"],
                            into[f"{other}: {kind}"], other.replace("_", " ")))
    return rows


def watch_minute(pids):
    """CPU milliseconds and wake-ups of each process in one minute."""
    before = [router.activity(pid) for pid in pids]
    time.sleep(MINUTE)
    after = [router.activity(pid) for pid in pids]
    return [((late[0] - early[0]) / 1e6, late[1] - early[1])
            for early, late in zip(before, after)]


def stall_server():
    """Announces an image, sends its beginning, and then nothing more."""
    server = socket.create_server(("192.0.2.1", STALL_PORT))

    def serve():
        client, _ = server.accept()
        client.recv(4096)
        client.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 25165824\r\n\r\n" + bytes(4096))
        client.recv(1)  # until the worker goes
        client.close()

    threading.Thread(target=serve, daemon=True).start()
    return server


def waiting(_runs):
    """An idle minute, and a minute of a download that stands still."""
    with router.daemon() as ours, router.least_object() as least:
        idle, base = watch_minute([ours.pid, least.pid])
        stall_server()
        router.offer("stalled")
        update = subprocess.Popen(["ubus", "-t", "100", "call", "fwupdate", "update",
                                   '{"force": "1", "timeout": 75}'], stdout=subprocess.DEVNULL)
        while "progress" not in router.call("state"):
            if update.poll() is not None:
                raise RuntimeError("the stalled download ended at once")
        worker = router.children(ours.pid)[0]
        stalled, working, base_again = watch_minute([ours.pid, worker, least.pid])
        update.wait(timeout=router.LONGEST)
    rows = []
    for label, sample, other, goals in (
            ("idle minute", idle, base, ("at most 0", "at most 0")),
            ("minute of a stalled download", stalled, base_again, ("", ONE_A_SECOND)),
            ("the same, its worker", working, base_again, ("", ""))):
        rows.append(Row(f"{label}: CPU time", "ms", [sample[0]], [other[0]], "least object",
                        goals[0]))
        rows.append(Row(f"{label}: wake-ups", "", [sample[1]], [other[1]], "least object",
                        goals[1]))
    return rows
