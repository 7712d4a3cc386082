# SPDX-License-Identifier: ISC
"""Sessions of the simulated router's web gateway: who is signed in, and what they may call.

Accounts are read from /etc/config/rpcd, access lists from /usr/share/rpcd/acl.d/*.json, both at
each sign-in, so that a test may change them. Sessions live in memory: a new start forgets them.
"""
import fnmatch
import glob
import json
import os
import shlex
import sys
import threading
import time
import warnings

with warnings.catch_warnings():
    # Leaves Python with 3.13; Debian 12 has 3.11.
    warnings.simplefilter("ignore", DeprecationWarning)
    import crypt

ACCESS_LISTS = "/usr/share/rpcd/acl.d/*.json"
ACCOUNTS = "/etc/config/rpcd"
SHADOW = "/etc/shadow"
NULL_SESSION = "0" * 32
DEFAULT_TIMEOUT = 300  # seconds

# What a call to the object "session" ends with
OK, INVALID_ARGUMENT, NO_METHOD, NOT_FOUND, PERMISSION_DENIED = 0, 2, 3, 4, 6


def read_accounts():
    """The `config login` sections: option name -> text, list name -> texts."""
    accounts = []
    with open(ACCOUNTS, encoding="utf-8") as lines:
        for words in (shlex.split(line, comments=True) for line in lines):
            if words[:1] == ["config"]:
                accounts.append({"type": words[1], "read": [], "write": []})
            elif words[:1] == ["option"]:
                accounts[-1][words[1]] = words[2]
            elif words[:1] == ["list"]:
                accounts[-1].setdefault(words[1], []).append(words[2])
    return [account for account in accounts if account["type"] == "login"]


def shadow_hash(user):
    with open(SHADOW, encoding="utf-8") as lines:
        for line in lines:
            fields = line.rstrip("\n").split(":")
            if fields[0] == user:
                return fields[1]
    return None


def password_fits(wanted, password):
    if not wanted:
        return True  # an account without a password lets everybody in, as on a router
    if wanted.startswith("$p$"):
        wanted = shadow_hash(wanted[3:])
        if not wanted:
            return wanted == ""
    return crypt.crypt(password, wanted) == wanted


def group_fits(account, permission, group):
    """Whether the account has the permission in that group of the access lists."""
    patterns = account[permission]
    if any(p.startswith("!") and fnmatch.fnmatchcase(group, p[1:].strip()) for p in patterns):
        return False
    if any(fnmatch.fnmatchcase(group, p) for p in patterns if not p.startswith("!")):
        return True
    return permission == "read" and group_fits(account, "write", group)


def grants_of(account):
    """[(scope, object pattern, function pattern)]; the null session's without an account."""
    grants = []
    for path in sorted(glob.glob(ACCESS_LISTS)):
        try:
            with open(path, encoding="utf-8") as text:
                groups = json.load(text)
        except ValueError as fault:
            print(f"gateway: {path}: {fault}", file=sys.stderr)
            continue
        for group, permissions in groups.items():
            for permission in ("read", "write"):
                if account is None:
                    granted = group == "unauthenticated"
                else:
                    granted = group_fits(account, permission, group)
                if granted and permission in permissions:
                    grants += grants_in(permission, permissions[permission])
                    grants.append(("access-group", group, permission))
    return grants


def grants_in(permission, scopes):
    for scope, objects in scopes.items():
        if isinstance(objects, dict):
            yield from ((scope, name, function) for name in objects for function in objects[name])
        else:
            yield from ((scope, name, permission) for name in objects)


class Session:
    def __init__(self, name, timeout, grants):
        self.name = name
        self.timeout = timeout
        self.grants = grants
        self.touch()

    def touch(self):
        self.ends = time.monotonic() + self.timeout

    def allows(self, scope, name, function):
        return any(scope == s and fnmatch.fnmatchcase(name, n) and fnmatch.fnmatchcase(function, f)
                   for s, n, f in self.grants)


class Sessions:
    """The object "session", as far as a page needs it: login, access, destroy."""

    def __init__(self):
        self.lock = threading.Lock()
        self.open = {NULL_SESSION: Session("", float("inf"), grants_of(None))}

    def find(self, sid):
        """Every look at a session starts its clock anew."""
        session = self.open.get(sid)
        if session is None:
            return None
        if session.ends < time.monotonic():
            del self.open[sid]
            return None
        session.touch()
        return session

    def allowed(self, sid, name, function):
        with self.lock:
            session = self.find(sid)
            return session is not None and session.allows("ubus", name, function)

    def call(self, method, args):
        """Returns a bus status and, when it is 0, the answer."""
        with self.lock:
            handler = {"login": self.login, "access": self.access, "destroy": self.destroy}.get(method)
            return handler(args) if handler else (NO_METHOD, None)

    def login(self, args):
        name, password = args.get("username"), args.get("password")
        timeout = args.get("timeout", DEFAULT_TIMEOUT)
        if not isinstance(name, str) or not isinstance(password, str):
            return INVALID_ARGUMENT, None
        for account in read_accounts():
            if account.get("username") == name and password_fits(account.get("password"), password):
                break
        else:
            return PERMISSION_DENIED, None
        sid = os.urandom(16).hex()
        session = self.open[sid] = Session(name, timeout, grants_of(account))
        acls = {}
        for scope, what, function in session.grants:
            acls.setdefault(scope, {}).setdefault(what, []).append(function)
        return OK, {"ubus_rpc_session": sid, "timeout": timeout, "expires": timeout, "acls": acls,
                    "data": {"username": name}}

    def access(self, args):
        session = self.find(args.get("ubus_rpc_session"))
        if session is None:
            return NOT_FOUND, None
        wanted = [args.get("scope", "ubus"), args.get("object"), args.get("function")]
        if not all(isinstance(word, str) for word in wanted):
            return INVALID_ARGUMENT, None
        return OK, {"access": session.allows(*wanted)}

    def destroy(self, args):
        sid = args.get("ubus_rpc_session")
        if sid == NULL_SESSION:
            return PERMISSION_DENIED, None
        return (OK, None) if self.open.pop(sid, None) else (NOT_FOUND, None)
