#!/bin/sh
# SPDX-License-Identifier: ISC
# The baseline of a page's look: the same answer of a running update by two scripts, as the page
# had it once, with a program for each value that is read or tested.
if [ "${1-}" = result ]; then
	for tool in ubus jsonfilter; do
		command -v "$tool" >/dev/null || exit
	done
	for job in /tmp/fwupdate-cli/job.*; do :; done
	keeper=$(head -n 1 "$job/pid")
	caller=$(head -n 1 "$job/watcher")
	kill -0 "$keeper" && kill -0 "$caller" || exit
	started=$(head -n 1 "$job/started")
	answer=$(head -n 1 "$job/answer" 2>/dev/null)
	arguments=$(head -n 1 "$job/arguments")
	printf '{"job":"running","started":%s,"arguments":"%s%s"}' "$started" "$arguments" "$answer"
	exit
fi
cat >/dev/null
update=$(sh "$0" result)
boot=$(cat /proc/sys/kernel/random/boot_id)
boot=$(printf %s "$boot" | tr '\000-\037\177' ' ' | sed 's/[\\"]/\\&/g')
state=$(ubus -S call fwupdate state)
printf '{"boot":"%s","now":%d,"state":%s,"update":%s}\n' "$boot" "$(date +%s)" "$state" "$update"
