# SPDX-License-Identifier: ISC
"""The programs of whoever makes firmware and keeps its server. The daemon's are elsewhere.

    publisher  fwupdate-publish: what routers are offered
    fleet      fwupdate-fleet: what became of it

Standard library only: they run on any desk with Python 3.9.
"""
