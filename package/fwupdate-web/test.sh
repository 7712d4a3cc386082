#!/bin/sh
# SPDX-License-Identifier: ISC
# Run by the feed's checks on an installed package: test.sh PACKAGE VERSION.
set -e

case $1 in
fwupdate-web)
	[ -s /www/fwupdate/index.html ]
	/usr/libexec/rpcd/fwupdate-job list | grep -q '"status"'
	;;
esac
