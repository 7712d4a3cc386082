# SPDX-License-Identifier: ISC
"""Requests per second, and bytes per check, of the update server's nginx."""
import os
import random
import re
import statistics

from make_images import uimage

from fleet_parts.server import UpdateServer

RUNS = 5
SECONDS = 4
CONNECTIONS = 64
A_DAY = 24 * 3600
MILLION = 1000000

# Every request is another router's, over a connection of its own, as on a real server.
PLAIN = """
wrk.headers["Accept"] = "*/*"
wrk.headers["Connection"] = "close"
"""
QUERIES = PLAIN + """
local n = 0
request = function()
	n = n + 1
	return wrk.format("GET", string.format(%s, n %% 251, n %% 251, n))
end
"""
QUERY = ('"/update.xml?fw=171000000&version=r1234&mac=02:00:00:00:00:%02X&ip=192.0.2.%d'
         '&model=QOR,MODEL-X&sn=SN%06d&customid=&os=VOLKRAN"')
# The same file, asked for by its path and without a query: what the configuration costs.
BASELINE = """
server {
	listen 127.0.0.1:81;
	listen 192.0.2.1:81;
	root /srv/update/model-x/stable;
	access_log off;
}
"""

# What a router sends, byte for byte, and what comes back; the counters of the network
# tell what it takes with all that TCP and IP add.
ONE_CHECK = r"""
import re, socket
def counted():
    text = open('/proc/net/dev').read()
    return sum(int(m) for m in re.findall(r':\s*(\d+)', text))
query = 'fw=171000000&version=r1234&mac=02:00:00:00:00:10&ip=192.0.2.10&model=QOR,MODEL-X&sn=AB12345&customid=&os=VOLKRAN'
request = ('GET /update.xml?' + query + ' HTTP/1.1\r\nHost: update.example.com\r\nAccept: */*\r\n\r\n').encode()
def ask():
    with socket.create_connection(('192.0.2.1', 80)) as s:
        s.sendall(request)
        answer = s.recv(65536)
    return answer
ask()
before = counted()
answers = [ask() for _ in range(50)]
head, body = answers[0].split(b'\r\n\r\n')
print(len(request), len(head) + 4, len(body), (counted() - before) // 50)
"""


def wrk(server, script, port):
    output = server.must(f"/host/usr/bin/wrk -t 1 -c {CONNECTIONS} -d {SECONDS}s -s {script} http://192.0.2.1:{port}/update.xml")
    assert "Non-2xx" not in output and "Socket errors" not in output, output
    return float(re.search(r"Requests/sec:\s*([0-9.]+)", output).group(1))


def spread(values):
    return f"{statistics.median(values):,.0f} ({min(values):,.0f} - {max(values):,.0f})"


def measure(folder):
    if not os.path.exists("/usr/bin/wrk"):
        print("bench/fleet: wrk is not installed; './setup.sh --fleet' brings it.")
        return 1
    with UpdateServer(folder, BASELINE) as server:
        path = server.folder / "image.bin"
        path.write_bytes(uimage(random.Random(1).randbytes(4096)))
        (server.folder / "notes").write_text("Faster start, fewer surprises. " * 8)
        for channel in ("stable", "candidate"):
            server.publish(channel, path, "174200000", "--notes", str(server.folder / "notes"))
        server.rollout(10)
        script = server.folder / "queries.lua"
        script.write_text(QUERIES % QUERY)
        plain = server.folder / "plain.lua"
        plain.write_text(PLAIN)
        program = server.folder / "one_check.py"
        program.write_text(ONE_CHECK)
        sizes = server.must(f"PYTHONHOME=/host/usr /host/usr/bin/python3 {program}")
        request, head, body, wire = map(int, sizes.split())
        rates = {}
        for _ in range(RUNS):  # in turn, so that both see the same weather
            rates.setdefault("real", []).append(wrk(server, script, 80))
            rates.setdefault("plain", []).append(wrk(server, plain, 81))
    print_table(rates, request, head, body, wire)
    return 0


def print_table(rates, request, head, body, wire):
    median = statistics.median(rates["real"])
    average = MILLION / A_DAY
    rows = [
        ("requests per second, real queries, this configuration, logged", spread(rates["real"])),
        ("requests per second, the same file without query, model, step and log", spread(rates["plain"])),
        ("bytes of one check: request, answer's head, manifest", f"{request}, {head}, {body}"),
        ("bytes of one check on the wire, with TCP and IP", f"{wire:,}"),
        ("a million routers once a day, spread evenly: requests per second", f"{average:.1f}"),
        ("the same: bytes per day on the wire", f"{wire * MILLION / 1e9:.1f} GB"),
        ("share of this one nginx process that they take", f"{100 * average / median:.2f} %"),
        ("all of them at once, at midnight: done after", f"{MILLION / median:.0f} s"),
    ]
    print("| what | measured |\n|---|---|")
    for what, value in rows:
        print(f"| {what} | {value} |")
