# SPDX-License-Identifier: ISC
"""What fwupdate-cli keeps of an update, for tests."""


def kept(router):
    return router.run("fwupdate-cli result --json").json()


def await_download(router):
    router.wait_for("fwupdate-cli status --json | grep -q progress")


def await_installer(router, times=1):
    """The installer starts two seconds after the answer; until it has ended nothing else may."""
    router.wait_for(f"test $(grep -c ^command /var/log/sysupgrade) -ge {times} && ! pidof sysupgrade")
