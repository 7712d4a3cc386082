# SPDX-License-Identifier: ISC
"""The web gateway of the simulated router, without a page: what a page relies on."""
import http.client
import json

import pytest

from browser import WAIT, wait_until

NULL = "0" * 32


@pytest.fixture
def sid(router):
    return sign_in(router, "root", "router")


def sign_in(router, user, password, **more):
    reply = router.call(NULL, "session", "login", {"username": user, "password": password, **more})
    return reply["result"][1]["ubus_rpc_session"]


def post(router, body):
    return json.loads(router.post(body.encode()).read())


def call(sid, name, method, args="{}"):
    return f'{{"jsonrpc":"2.0","id":7,"method":"call","params":["{sid}","{name}","{method}",{args}]}}'


def code(reply):
    return reply["error"]["code"]


def test_login_says_what_the_account_may(router):
    reply = router.call(NULL, "session", "login", {"username": "viewer", "password": "look"})
    status, data = reply["result"]
    assert status == 0 and len(data["ubus_rpc_session"]) == 32
    assert (data["timeout"], data["expires"], data["data"]) == (300, 300, {"username": "viewer"})
    assert data["acls"]["access-group"] == {"fwupdate-web": ["read"]}
    assert sorted(data["acls"]["ubus"]["fwupdate-job"]) == ["check", "doctor", "status"]


def test_bus_errors_are_results(router, sid):
    assert router.call(NULL, "session", "login", {"username": "root", "password": "x"})["result"] == [6]
    assert router.call(NULL, "session", "login", {"username": "root"})["result"] == [2]
    assert router.call(sid, "session", "destroy", {})["result"] == [0]


@pytest.mark.parametrize("body, wanted", [
    ("no JSON", -32700),
    ("7", -32700),
    ('{"id":1,"method":"call","params":[]}', -32700),
    ('{"jsonrpc":"1.0","id":1,"method":"list"}', -32700),
    (f'{{"jsonrpc":"2.0","id":1,"method":"call","params":["{NULL}","session","login"]}}', -32700),
    (f'{{"jsonrpc":"2.0","id":1,"method":"call","params":["{NULL}","session",5,{{}}]}}', -32700),
    ('{"jsonrpc":"2.0","id":1,"method":"cal","params":[]}', -32601),
    (call(NULL, "nothing", "state"), -32000),
    (call(NULL, "fwupdate", "state"), -32002),
    (call("f" * 32, "fwupdate", "state"), -32002),
    (call(NULL, "session", "login", '{"ubus_rpc_session":"x"}'), -32602),
])
def test_errors_have_their_codes(router, body, wanted):
    assert code(post(router, body)) == wanted


def test_oversized_request_is_refused(router):
    assert code(post(router, call(NULL, "session", "login", json.dumps({"username": "x" * 66000})))) == -32700


def test_batch_runs_one_after_the_other(router, sid):
    replies = post(router, f"[{call(sid, 'fwupdate-job', 'check')},{call(sid, 'fwupdate-job', 'status')},3]")
    assert replies[0]["result"][1]["answer"]["error_code"] == "0"
    assert replies[1]["result"][1]["state"]["state"] == "XML_DONE"
    assert code(replies[2]) == -32700


def test_list_needs_no_session(router):
    names = post(router, '{"jsonrpc":"2.0","id":1,"method":"list"}')["result"]
    assert {"fwupdate", "fwupdate-job", "session", "system"} <= set(names)
    signatures = post(router, '{"jsonrpc":"2.0","id":1,"method":"list","params":["fwupdate"]}')["result"]
    assert signatures["fwupdate"]["test"] == {"file": "string", "partition": "string"}
    assert signatures["fwupdate"]["update"]["delay"] == "number"


def test_access_lists_are_the_packages(router, sid):
    viewer = sign_in(router, "viewer", "look")
    for name, method, who in (("fwupdate-job", "check", 2), ("fwupdate-job", "doctor", 2), ("fwupdate-job", "status", 2),
                              ("system", "board", 2), ("fwupdate-job", "test", 1), ("fwupdate-job", "start", 1),
                              ("fwupdate", "check", 0), ("fwupdate", "state", 0), ("fwupdate", "update", 0), ("fwupdate", "test", 0)):
        question = {"scope": "ubus", "object": name, "function": method}
        answers = [router.call(one, "session", "access", question)["result"][1]["access"] for one in (sid, viewer)]
        assert answers == [who > 0, who == 2], (name, method)


def test_session_ends_by_itself_and_by_asking(router, sid):
    for seconds in (2, 10, 50):  # the first call of a busy machine may come too late for a short one
        brief = sign_in(router, "root", "router", timeout=seconds)
        first = router.call(brief, "system", "board", {})
        if "result" in first:
            break
    assert "result" in first
    # Each question starts the session's clock anew, so they are further apart than it lasts.
    wait_until(lambda: "error" in router.call(brief, "system", "board", {}), "the session ends", pause=seconds + 0.5)
    assert code(router.call(brief, "system", "board", {})) == -32002
    assert "result" in router.call(sid, "system", "board", {}), "the other session lasts"
    router.end_session(sid)
    assert code(router.call(sid, "system", "board", {})) == -32002


def test_restart_forgets_sessions(router, sid):
    router.power_off()
    router.power_on()
    assert code(router.call(sid, "fwupdate", "state", {})) == -32002


def test_call_has_a_limit_and_goes_on(make_router):
    router = make_router("--web-limit", "3")
    sid = sign_in(router, "root", "router")
    router.machine.stop_daemon()
    assert code(router.call(sid, "fwupdate-job", "check", {})) == -32003
    router.machine.continue_daemon()
    router.wait_for("ubus call fwupdate state | grep -q XML_DONE")


def test_plugin_stands_beside_the_objects(router, sid):
    reply = router.call(sid, "fwupdate-job", "status", {})["result"]
    assert reply[0] == 0 and reply[1]["update"] == {"job": "none"}
    assert len(reply[1]["boot"]) == 36 and reply[1]["now"] > 1700000000
    assert router.call(sid, "fwupdate-job", "start", {"force": "text"})["result"][1]["status"] == 2
    assert router.call(sid, "fwupdate-job", "status", {})["result"][1]["update"] == {"job": "none"}, "nothing was started"


def test_object_that_is_gone_is_not_found(router, sid):
    router.lose_the_daemon()
    assert code(router.call(sid, "fwupdate", "state", {})) == -32000


def test_connection_stays_open_until_the_router_goes(router):
    """A browser sends its next call on it. What follows a request whose body nobody has read is no request."""
    connection = http.client.HTTPConnection("127.0.0.1", router.relay.server_address[1], timeout=WAIT)

    def asked(verb, path, body=None):
        connection.request(verb, path, body)
        reply = connection.getresponse()
        reply.read()
        return reply.getheader("Connection"), reply.getheader("Keep-Alive")

    connection.connect()
    kept = connection.sock
    for verb, path, body in (("GET", "/fwupdate/", None), ("POST", "/ubus", "{}"), ("GET", "/nothing", None), ("HEAD", "/fwupdate/", None)):
        assert asked(verb, path, body) == ("Keep-Alive", "timeout=20"), path
    assert connection.sock is kept
    asked("POST", "/nothing", "x")
    assert connection.sock is None or connection.sock.recv(1) == b"", "it ends with a body that nobody has read"
    connection.connect()
    asked("GET", "/fwupdate/")
    router.power_off()
    assert connection.sock.recv(1) == b"", "the relay has ended it as well"


def test_files_have_a_tag(router):
    first = router.request("GET", "/fwupdate/")
    assert first.status == 200 and b"main.js?v=" in first.read()
    tag = first.getheader("ETag")
    again = router.request("GET", "/fwupdate/index.html", headers={"If-None-Match": tag})
    assert again.status == 304
    assert router.request("GET", "/fwupdate/main.js").getheader("Content-Type").split(";")[0].endswith("javascript")
    assert router.request("GET", "/../etc/shadow").status in (403, 404)
    assert router.request("GET", "/nothing").status == 404
