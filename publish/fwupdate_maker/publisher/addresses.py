# SPDX-License-Identifier: ISC
"""Which addresses routers can use as they are. Taken apart here and not by urllib, whose
answers differ from one Python to the next."""
from __future__ import annotations

import ipaddress
import re
from urllib.parse import unquote

from ..refusal import Refusal
from .manifest import MANIFEST, printable

ADDRESS = re.compile(r"(https?)://([^/?#]*)([^?#]*)(.*)", re.DOTALL)
HOST = re.compile(r"(\[[0-9A-Fa-f:.]*\]|[^:\[\]@]*)(:[^@]*)?")
LABEL = re.compile(r"[A-Za-z0-9_]([A-Za-z0-9_-]*[A-Za-z0-9_])?")


def check_base_url(url: str) -> None:
    """The address at which routers find the folder."""
    name = f"base URL '{printable(url)}'"
    example = "Give an address such as http://update.example.com/model-x."
    path, rest = check_address(name, url, example)
    if rest:
        raise Refusal(f"{name}: it has a '?' or '#', and a file name cannot follow these.", example)
    if re.search(r"[\[\]]", path) or re.search(r"//|/\.\.?(/|$)", unquote(path)):
        raise Refusal(f"{name}: its path holds '//', '/./', '/../' or a bracket.", example)
    if path.rstrip("/").endswith("/" + MANIFEST):
        raise Refusal(f"{name}: it is the address of a manifest, not of the folder.",
                      f"Leave /{MANIFEST} out.")


def check_manifest_url(option: str, url: str) -> None:
    """The address at which routers ask for the manifest, as an option gives it."""
    name = f"{option} '{printable(url)}'"
    example = "Give the address of the manifest, such as http://update.example.com/update.xml."
    _, rest = check_address(name, url, example)
    if "#" in rest:
        raise Refusal(f"{name}: it has a '#', and what a router asks cannot follow it.", example)


def check_address(name: str, url: str, example: str) -> tuple[str, str]:
    """Returns the path, and the query with all that follows it."""
    bad = re.search(r"[^A-Za-z0-9._~:/@!$&'()*+,;=%?#\[\]-]", url)
    if bad or re.search(r"%(?![0-9A-Fa-f]{2})", url):
        character = bad.group() if bad else "%"
        raise Refusal(f"{name}: '{printable(character)}' needs escaping in a URL, and routers"
                      " hand URLs on as they are.", example)
    hidden = re.search(r"%([01][0-9A-Fa-f]|7[Ff])", url)
    if hidden:
        raise Refusal(f"{name}: '{hidden.group()}' stands for a control character.", example)
    parts = ADDRESS.fullmatch(url)
    if parts is None or not parts.group(2):
        raise Refusal(f"{name}: it does not begin with http://HOST or https://HOST.", example)
    check_host(name, parts.group(2), example)
    return parts.group(3), parts.group(4)


def check_host(name: str, text: str, example: str) -> None:
    match = HOST.fullmatch(text)
    if match is None:
        raise Refusal(f"{name}: '{text}' is no host name with or without a port; a user"
                      " name would be readable for everybody.", example)
    host, port = match.group(1), match.group(2)
    if port is not None and not (re.fullmatch(r":[1-9][0-9]{0,4}", port) and int(port[1:]) <= 65535):
        raise Refusal(f"{name}: '{port[1:]}' is no port; ports go from 1 to 65535.", example)
    if host.startswith("["):
        if not is_address(ipaddress.IPv6Address, host[1:-1]):
            raise Refusal(f"{name}: '{host}' is no IPv6 address.", example)
    elif re.search(r"(^|\.)(0[xX][0-9A-Fa-f]*|[0-9]+)$", host):
        # Such a name is read as numbers, in ways that differ from program to program.
        if not is_address(ipaddress.IPv4Address, host) or re.search(r"(^|\.)0[0-9]", host):
            raise Refusal(f"{name}: '{host}' is no IPv4 address of four numbers from 0 to 255.", example)
    elif len(host) > 253 or not all(len(x) <= 63 and LABEL.fullmatch(x) for x in host.split(".")):
        raise Refusal(f"{name}: '{host}' is no host name; between its dots stand 1 to 63 letters,"
                      " digits or '-'.", example)


def is_address(kind: type[ipaddress.IPv4Address] | type[ipaddress.IPv6Address], text: str) -> bool:
    try:
        kind(text)
    except ValueError:
        return False
    return True
