# SPDX-License-Identifier: ISC
"""Makes the parts of these tests importable."""
import pathlib
import sys

here = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(here)]
