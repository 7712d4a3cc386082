#!/bin/sh
# SPDX-License-Identifier: ISC
# What demo.sh shows, step by step, on the simulated router: `update` or
# `refusal`. Every step is checked; the first that fails ends it.

say() {
	printf '\n== %s\n' "$*"
}

show() {
	printf '# %s\n' "$*"
	"$@"
}

fail() {
	printf '\nFAILED: %s\n' "$*" >&2
	exit 1
}

# expect WHAT ACTUAL WANTED
expect() {
	[ "$2" = "$3" ] || fail "$1 is '$2' and not '$3'."
}

await_installer() {
	tries=0
	until [ -f /var/log/sysupgrade ]; do
		tries=$((tries + 1))
		[ $tries -lt 100 ] || fail "sysupgrade was not started."
		sleep 0.1
	done
}

# recorded FIELD: what sysupgrade noted.
recorded() {
	sed -n "s/^$1: //p" /var/log/sysupgrade
}

show_update() {
	say "The daemon is one object with four methods on the router's bus."
	show ubus -v list fwupdate || fail "the object is not on the bus."
	show ubus call fwupdate check || fail "check was not answered."

	say "The command asks them: it checks, shows how far a download is, and keeps the answer."
	show fw_printenv bootpart
	show fwupdate-cli update --yes --partition firmware || fail "the update failed (status $?)."

	say "The partition to boot from was recorded with fw_setenv."
	show fw_printenv bootpart
	expect bootpart "$(fw_printenv -n bootpart)" firmware

	say "Two seconds after the answer the installer starts."
	await_installer
	show cat /var/log/sysupgrade
	expect "the installer's call" "$(recorded command)" "sysupgrade -F /tmp/fwupdate.bin"
	served=$(sha256sum /srv/update/releases/*/firmware.bin)
	expect "the checksum of what was installed" "$(recorded sha256)" "${served%% *}"
	echo "This is the checksum of the file on the server."
}

show_refusal() {
	say "The firmware on the server is damaged; the update is allowed two attempts."
	before=$(fw_printenv) || fail "the boot environment cannot be read."
	show fwupdate-cli update --yes --attempts 2
	expect "the status" $? 1

	say "It was downloaded twice and refused both times."
	show grep 'GET /releases/.*/firmware.bin ' /var/log/nginx-access.log
	expect "the number of downloads" "$(grep -c 'GET /releases/.*/firmware.bin ' /var/log/nginx-access.log)" 2
	show grep 'Bad Image checksum' /var/log/messages
	expect "the number of refusals" "$(grep -c 'Bad Image checksum' /var/log/messages)" 2

	say "Nothing was installed."
	[ ! -e /tmp/fwupdate.bin ] || fail "the damaged file is still in /tmp."
	expect "the boot environment" "$(fw_printenv)" "$before"
	sleep 3 # the installer would start two seconds after the answer
	[ ! -e /var/log/sysupgrade ] || fail "sysupgrade was started."
	echo "The file is gone, the boot environment unchanged, sysupgrade was not started."
}

case $1 in
update) show_update ;;
refusal) show_refusal ;;
*) fail "unknown demonstration '$1'." ;;
esac
say "Every step went as it should."
