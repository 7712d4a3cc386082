# SPDX-License-Identifier: ISC
"""What fwupdate-publish is made of.

    command_line  what each subcommand does, messages, exit status
    options       the subcommands and their options
    manifest      the XML that routers read: its limits, how it is written and read
    addresses     which addresses routers can use
    image         would a router accept this file, and which model is it made for
    fwtool        metadata and signatures at the end of an image
    signing       signs and checks images with usign or signify
    folder        the folder that the server serves, and how it changes
    verify        asks a server as a router does and compares
"""
