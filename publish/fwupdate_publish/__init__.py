# SPDX-License-Identifier: ISC
"""What fwupdate-publish is made of.

    command_line  arguments, messages, exit status
    manifest      the XML that routers read: its limits, how it is written and read
    image         would a router accept this file, and which model is it made for
    fwtool        metadata at the end of an image
    folder        the folder that the server serves, and how it changes
    verify        asks a server as a router does and compares

Standard library only: it has to run on any maker's desk with Python 3.9.
"""
