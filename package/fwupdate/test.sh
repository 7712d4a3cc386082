#!/bin/sh
# SPDX-License-Identifier: ISC
# Run by the feed's checks on an installed package: test.sh PACKAGE VERSION.
set -e

case $1 in
fwupdate)
	[ -x /usr/sbin/fwupdate ]
	[ -x /etc/init.d/fwupdate ]
	fwupdate-cli --version | grep -qxF "fwupdate-cli $2"
	;;
esac
