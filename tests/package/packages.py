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


def make(package, stage, *words, goal="install", check=False, **variables):
    """Runs a package's Makefile in the stand-in feed, as testbed/install-package does; the values
    are handed over as a build system's .config has them."""
    stage.mkdir(exist_ok=True)
    config = stage / "config.mk"
    config.write_text("".join(f"{name}={value}\n" for name, value in variables.items()))
    return subprocess.run(
        ["make", "-s", "--no-print-directory", "-C", PROJECT / "package" / package, f"TOPDIR={PROJECT}/testbed/build-tree",
         f"STAGE={stage}", f"BUILD={BUILD}", f"CONFIG={config}", f"FWUPDATE_SOURCE={PROJECT}", *words, goal],
        capture_output=True, text=True, check=check)
