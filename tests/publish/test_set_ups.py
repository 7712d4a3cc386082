# SPDX-License-Identifier: ISC
"""nginx as docs/update-server.md has a reader install it: Debian's packages as they come,
the documented lines, nothing renamed."""
import sys

import pytest
from conftest import Publisher, project
from make_images import uimage
from namespaces import Network, documented
from simulated_router import wait_until

QUERY = "?fw=1&version=r1&mac=02:00:00:00:00:10&ip=192.0.2.10&model=QOR,MODEL-X&sn={sn}&customid=&os=VOLKRAN"
ORIGIN, CACHE = "198.51.100.1", "198.51.100.2"


@pytest.fixture
def network(tmp_path):
    with Network(tmp_path) as network:
        yield network


def workers(machine):
    """The processes that answer; none while nginx is still on its way up."""
    return set(machine.run("p=$(cat /run/nginx.pid) && cat /proc/$p/task/$p/children").stdout.split())


def follow(machine, heading, leave_out="apt-get"):
    """The reader's lines; the package, whose nginx runs as soon as it is installed, is there. A
    reload comes back at once, while processes with the old configuration may still answer."""
    machine.must("nginx")
    before = wait_until(lambda: workers(machine), "nginx runs")
    said = ""
    for line in documented(heading):
        if not line.startswith(leave_out):
            said += machine.must(f"cd {project} && {line}")
    wait_until(lambda: not before & workers(machine), "the new configuration is in force")
    return said


def publish(machine, folder, host=ORIGIN, size=5000):
    folder.mkdir()
    publisher = Publisher(folder)
    publisher.image.write_bytes(uimage(b"x" * size))
    for channel, build in (("stable", "1001"), ("candidate", "1002")):
        publisher.out = machine.file(f"/srv/update/model-x/{channel}")
        assert publisher.publish(build=build, url=f"http://{host}/model-x/{channel}").returncode == 0


def offered(machine, host, sn):
    text = machine.ask(f"http://{host}/update.xml" + QUERY.format(sn=sn))
    return text.split("<buildtime>")[1].split("<")[0]


def serial(machine, host, build):
    """A serial number to which the server offers this build."""
    return next(f"SN{n}" for n in range(200) if offered(machine, host, f"SN{n}") == build)


def verify(machine, host, folder, *words):
    return machine.run(f"{sys.executable} {project}/publish/fwupdate-publish verify http://{host}/update.xml"
                       f" --out {folder} --board QOR,MODEL-X {' '.join(words)}")


def test_server_as_documented(network, tmp_path):
    machine = network.machine(ORIGIN)
    said = follow(machine, "## 2. nginx")
    assert "test is successful" in said and "conflicting" not in said
    publish(machine, tmp_path / "desk")
    stable, candidate = (serial(machine, ORIGIN, build) for build in ("1001", "1002"))
    for channel, sn in (("stable", stable), ("candidate", candidate)):
        result = verify(machine, ORIGIN, machine.file(f"/srv/update/model-x/{channel}"), "--serial", sn)
        assert result.returncode == 0 and "the image, 5064 bytes, is as in the folder" in result.stdout, result.stderr
    assert "<buildtime>1<" in machine.ask(f"http://[::1]/update.xml{QUERY.format(sn='x').replace('MODEL-X', 'OTHER')}")
    # Where logrotate finds it: Debian's rule is for /var/log/nginx/*.log.
    assert "/var/log/nginx/*.log" in open("/etc/logrotate.d/nginx").read()
    lines = machine.log()
    assert any(line[3] == f"sn={candidate}" and line[6] == "candidate" and line[8] == "/model-x/candidate/update.xml"
               for line in lines), lines
    assert {len(line) for line in lines} == {9}


def test_debians_default_site_does_not_win_in_silence(network):
    machine = network.machine(ORIGIN)
    with pytest.raises(AssertionError, match="a duplicate default server"):
        follow(machine, "## 2. nginx", leave_out=("apt-get", "rm "))


def test_query_cannot_add_a_field_to_the_log(network, tmp_path):
    machine = network.machine(ORIGIN)
    follow(machine, "## 2. nginx")
    publish(machine, tmp_path / "desk")
    for sn in ("a%09b", "a%0ab", "%22", "a%20b", "%1b[31m"):
        machine.ask(f"http://{ORIGIN}/update.xml?sn={sn}&model=QOR,MODEL-X")
        machine.ask(f"http://{ORIGIN}/{sn}/update.xml")
    assert {len(line) for line in machine.log()} == {9}
    assert "\x1b" not in machine.file("/var/log/nginx/update.log").read_text()


def two_machines(network, tmp_path, minute):
    """The cache's minute, in which it does not ask for a manifest again, is as long as the test says."""
    origin, cache = network.machine(ORIGIN), network.machine(CACHE)
    follow(origin, "## 2. nginx")
    publish(origin, tmp_path / "desk", CACHE)
    follow(cache, "### A cache in front")
    cache.must(f"sed -i 's/200 1m/200 {minute}/' /etc/nginx/sites-enabled/update-cache.conf; nginx -s quit;"
               " while [ -e /run/nginx.pid ]; do sleep 0.05; done; nginx")
    return origin, cache


def test_cache_asks_the_origin_once_for_each_file(network, tmp_path):
    """Within the minute: here within an hour, for a busy machine may take longer."""
    origin, cache = two_machines(network, tmp_path, "1h")
    builds = {f"SN{n}": offered(cache, CACHE, f"SN{n}") for n in range(20)}
    assert set(builds.values()) == {"1001", "1002"}
    folder = origin.file("/srv/update/model-x/stable")
    sn = next(sn for sn, build in builds.items() if build == "1001")
    for _ in range(2):
        result = verify(cache, CACHE, folder, "--serial", sn)
        assert result.returncode == 0 and "the image, 5064 bytes, is as in the folder" in result.stdout, result.stderr
    cache.ask(f"http://{CACHE}/model-x/stable/releases/1001/firmware.bin?x=1")
    wait_until(lambda: len(origin.log()) >= 3, "three files were asked for")
    assert sorted(line[8] for line in origin.log()) == [
        "/model-x/candidate/update.xml", "/model-x/stable/releases/1001/firmware.bin", "/model-x/stable/update.xml"]
    # Its log says who asked, as the server's does.
    logged = {line[3]: line[6] for line in cache.log() if line[8] == "/update.xml"}
    assert {f"sn={sn}": {"1001": "stable", "1002": "candidate"}[build] for sn, build in builds.items()}.items() <= logged.items()


def test_cache_goes_on_without_the_origin(network, tmp_path):
    """Long after the minute: here after a second, so that the test need not wait."""
    origin, cache = two_machines(network, tmp_path, "1s")
    sn = serial(cache, CACHE, "1001")
    image = f"http://{CACHE}/model-x/stable/releases/1001/firmware.bin"
    assert cache.ask(image).endswith(" 200\n")
    origin.must("nginx -s stop")
    error = cache.file("/var/log/nginx/error.log")

    def asked_in_vain():
        assert offered(cache, CACHE, sn) == "1001"
        return "Connection refused" in error.read_text()

    wait_until(asked_in_vain, "the manifest has expired, and the origin was asked in vain")
    result = verify(cache, CACHE, origin.file("/srv/update/model-x/stable"), "--serial", sn)
    assert result.returncode == 0, result.stderr


HOLD = """
import socket, sys
held = []
for n in range(201):
    s = socket.socket()
    s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    s.connect((sys.argv[1], 80))
    s.sendall(b"GET /model-x/stable/releases/1001/firmware.bin HTTP/1.1\\r\\nHost: x\\r\\n\\r\\n")
    held.append((s, s.recv(12)))
print([answer for _, answer in held].count(b"HTTP/1.1 200"), held[-1][1].decode())
"""


def test_two_hundred_images_at_once_and_no_more(network, tmp_path):
    machine = network.machine(ORIGIN)
    follow(machine, "## 2. nginx")
    publish(machine, tmp_path / "desk", size=8 << 20)
    (machine.folder / "hold.py").write_text(HOLD)
    assert machine.must(f"{sys.executable} {machine.folder}/hold.py {ORIGIN}") == "200 HTTP/1.1 503\n"
    # The manifest is not counted among them.
    assert offered(machine, ORIGIN, "") == "1001"


def test_configuration_needs_its_origin(network):
    """Before the reader has filled it in, nginx says so."""
    machine = network.machine(CACHE)
    with pytest.raises(AssertionError, match="host not found in upstream \"origin.example.com"):
        machine.must(f"cd {project}/publish/server; rm /etc/nginx/sites-enabled/default; cp update.conf /etc/nginx/conf.d/;"
                     " cp rollout.conf /etc/nginx/; cp update-cache.conf /etc/nginx/sites-enabled/; nginx -t")
