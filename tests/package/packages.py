# SPDX-License-Identifier: ISC
"""Packages as their Makefiles install them, and what their access lists have to look like."""
import subprocess

from simulated_router import BUILD, PROJECT

NAMES = {"type": "array", "items": {"type": "string", "minLength": 1}, "minItems": 1,
         "uniqueItems": True}
BUS_SCHEMA = {
    "type": "object", "additionalProperties": False, "required": ["access"],
    "oneOf": [{"required": ["user"]}, {"required": ["group"]}],
    "properties": {
        "user": {"type": "string"}, "group": {"type": "string"},
        "access": {"type": "object", "additionalProperties": {
            "type": "object", "additionalProperties": False, "properties": {"methods": NAMES}}},
        "publish": NAMES, "subscribe": NAMES, "listen": NAMES, "send": NAMES}}
RIGHTS = {"type": "object", "additionalProperties": False, "properties": {
    "ubus": {"type": "object", "additionalProperties": NAMES},
    "uci": NAMES,
    "file": {"type": "object", "additionalProperties": NAMES}}}
SESSION_SCHEMA = {"type": "object", "minProperties": 1, "additionalProperties": {
    "type": "object", "additionalProperties": False, "required": ["description"],
    "properties": {"description": {"type": "string"}, "read": RIGHTS, "write": RIGHTS}}}


def install_package(*arguments):
    return subprocess.run([PROJECT / "testbed/install-package", "--build", BUILD, *arguments],
                          check=True, capture_output=True, text=True).stdout
