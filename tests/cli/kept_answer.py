# SPDX-License-Identifier: ISC
"""What fwupdate-cli keeps of an update, for tests."""


def kept(router):
    return router.run("fwupdate-cli result --json").json()


def await_download(router):
    router.wait_for("fwupdate-cli status --json | grep -q progress")
