# SPDX-License-Identifier: ISC
"""The nginx configuration of docs/update-server.md, as it stands."""
import re
import subprocess
import sys

import pytest
from conftest import project
from make_images import uimage
from simulated_router import BUILD, wait_until

sys.path[:0] = [str(project / "bench")]

from fleet_parts.server import SERVER, UpdateServer  # noqa: E402 the path comes first
from fleet_parts.shares import reached  # noqa: E402

MODEL = "model=QOR,MODEL-X"


def publish_both(server):
    image = server.folder / "image.bin"
    image.write_bytes(uimage(b"x" * 5000))
    server.publish("stable", image, "1001")
    server.publish("candidate", image, "1002")


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    with UpdateServer(tmp_path_factory.mktemp("server")) as server:
        publish_both(server)
        server.rollout(10)
        yield server


def build_for(server, query):
    return re.search("<buildtime>(.*)</buildtime>", server.get(query)).group(1)


@pytest.mark.parametrize("percent", [0.01, 10, 33.33, 50, 100])
def test_step_reaches_the_serial_numbers_that_the_hash_says(server, percent):
    server.rollout(percent)
    serials = [f"SN{number:04d}" for number in range(120)]
    text = server.must("for sn in " + " ".join(serials) + f"; do busybox wget -q -O- \"http://192.0.2.1/update.xml?sn=$sn&{MODEL}\""
                       " | grep buildtime; done")
    got = {sn for sn, line in zip(serials, text.splitlines()) if "1002" in line}
    assert got == {sn for sn in serials if reached(sn, percent)}
    assert percent < 10 or got


def test_pause_gives_everybody_the_stable_release(server):
    server.rollout(0)
    assert {build_for(server, f"sn=SN{n}&{MODEL}") for n in range(30)} == {"1001"}


def test_router_without_a_serial_number_is_in_no_step(server):
    server.rollout(100)
    assert build_for(server, f"sn=&{MODEL}") == "1001"
    assert build_for(server, MODEL) == "1001"
    assert build_for(server, f"sn=1&{MODEL}") == "1002"


@pytest.mark.parametrize("model", ["OTHER", "", "../../etc", "qor,model-x2", "QOR%2CMODEL-X"])
def test_unknown_model_is_offered_nothing(server, model):
    text = server.get(f"sn=1&model={model}")
    assert text == (SERVER / "nothing/update.xml").read_text().rstrip("\n")
    assert "<buildtime>1</buildtime>" in text and "<force_update>0</force_update>" in text


def test_rest_of_the_query_changes_nothing(server):
    server.rollout(0)
    query = "fw={0}&version=r{0}&mac=02:00:00:00:00:10&ip=192.0.2.{0}&" + MODEL + "&sn=AB{0}&customid=&os=VOLKRAN"
    assert len({server.get(query.format(n)) for n in range(10)}) == 1


def test_manifest_and_head_fit_into_one_packet(server):
    answer = server.must(f"printf 'GET /update.xml?sn=1&{MODEL} HTTP/1.1\\r\\nHost: x\\r\\n"
                         "Accept-Encoding: gzip\\r\\nConnection: close\\r\\n\\r\\n' | nc 192.0.2.1 80")
    head, body = answer.replace("\r", "").split("\n\n", 1)
    assert len(head) + 1024 < 1360
    assert "Content-Length: " in head and "Content-Encoding" not in head
    assert "Cache-Control: no-cache" in head and "Content-Type: text/xml" in head
    assert body.startswith("<?xml")


def test_image_may_be_kept_for_ever(server):
    answer = server.must("busybox wget -S -O /tmp/got http://192.0.2.1/model-x/stable/releases/1001/image.bin 2>&1")
    assert "immutable" in answer and "Content-Length: 5064" in answer
    server.must(f"cmp /tmp/got {server.folder}/image.bin")


def test_log_says_who_asked_and_what_they_got(server):
    server.rollout(100)
    server.get(f"fw=123&sn=LOG1&{MODEL}")
    # nginx writes the line when the answer is on its way already.
    line = wait_until(lambda: [line for line in server.log() if line["sn"] == "LOG1"], "it is not in the log")[0]
    assert line.pop("time") and int(line.pop("bytes")) > 200
    assert line.pop("address") == "192.0.2.10"
    assert line == {"status": "200", "uri": "/model-x/candidate/update.xml", "sn": "LOG1", "fw": "123",
                    "model": "QOR,MODEL-X", "channel": "candidate"}


@pytest.mark.skipif("FWUPDATE_ARCH" in (BUILD / "CMakeCache.txt").read_text(),
                    reason="testbed/toolchain builds a libcurl without TLS")
def test_daemon_checks_over_https(router):
    """With a certificate of a maker whom the router knows, and with one whom it does not."""
    folder = router.folder
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=update.example.com",
         "-addext", "subjectAltName=DNS:update.example.com", "-keyout", folder / "key.pem", "-out", folder / "cert.pem"],
        check=True, capture_output=True)
    (folder / "https.conf").write_text(f"""
user root; daemon on; master_process off; pid /var/run/https.pid; events {{ }}
error_log /var/log/nginx-error.log;
http {{ access_log off; server {{ listen 192.0.2.1:443 ssl; root /srv/update;
ssl_certificate {folder}/cert.pem; ssl_certificate_key {folder}/key.pem; }} }}
""")
    (router.server_root / "update.xml").write_text((SERVER / "nothing/update.xml").read_text())
    router.must(f"/host/usr/sbin/nginx -c {folder}/https.conf")
    router.must("uci set system.@system[0].fwupdate_xml_url=https://update.example.com/update.xml")
    assert router.call("check")["error_code"] == "1"
    router.must(f"mkdir -p /etc/ssl/certs; cp {folder}/cert.pem /etc/ssl/certs/ca-certificates.crt")
    reply = router.call("check")
    assert (reply["error_code"], reply["version"], reply["need_update"]) == ("0", "none", "0")
