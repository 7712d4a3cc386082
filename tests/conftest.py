# SPDX-License-Identifier: ISC
"""Lets the Python tests of every folder import what is in tests/support."""
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parent / "support"))
