#!/bin/sh
# SPDX-License-Identifier: ISC
# Runs on the simulated router of demo.sh --web: makes it run version $1, build $2, and
# ends with status 10 when the installer has been at work for some seconds.
sed -i "s/r1234/$1/; s/171000000/$2/" /etc/router/board.json
echo "The router runs version $1, build $2."
until [ -e /var/log/sysupgrade ]; do
	sleep 1
done
sleep 4
exit 10
