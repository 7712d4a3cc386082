# SPDX-License-Identifier: ISC
"""What may come in place of the gateway's answer. Each returns a fault for Relay.fault."""
import threading

from simulated_router import WAIT


def http(body, announced=None):
    length = len(body) if announced is None else announced
    return b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n%s" % (length, body)


def instead_of(method, raw):
    """The method's calls are answered with these bytes, and the connection is closed."""

    def fault(_, called, browser):
        if called == method:
            browser.sendall(raw)
        return called == method

    return fault


def result(data):
    return http(b'{"jsonrpc":"2.0","id":1,"result":[0,%s]}' % data)


def error(code):
    return http(b'{"jsonrpc":"2.0","id":1,"error":{"code":%d,"message":"x"}}' % code)


class Held:
    """The method's calls wait for release(), then go on to the router."""

    def __init__(self, method):
        self.method = method
        self.came = threading.Event()
        self.freed = threading.Event()
        self.others = []  # calls of other methods since then

    def __call__(self, _, called, browser):
        if called == self.method:
            self.came.set()
            self.freed.wait(WAIT)
        else:
            self.others.append(called)
        return False

    def release(self):
        self.freed.set()
