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

# value JSON EXPRESSION: prints what the expression finds, or nothing.
value() {
	jsonfilter -s "$1" -e "$2"
}

# expect WHAT ACTUAL WANTED
expect() {
	[ "$2" = "$3" ] || fail "$1 is '$2' and not '$3'."
}

# The listener is there when it hears us. Its events arrive on descriptor 8.
listen() {
	mkfifo /var/run/events || return
	ubus listen demo.ready fwupdate.avaliable >/var/run/events &
	exec 8</var/run/events
	tries=0
	# shellcheck disable=SC3045 # BusyBox's read has a time limit
	until read -r -t 1 event <&8; do
		tries=$((tries + 1))
		[ $tries -lt 10 ] || return
		ubus send demo.ready '{}' || return
	done
}

# Events of our own may be queued in front of the one wanted.
next_update_event() {
	# shellcheck disable=SC3045 # BusyBox's read has a time limit
	while read -r -t 5 event <&8; do
		case $event in
		*fwupdate.avaliable*) return 0 ;;
		esac
	done
	return 1
}

# draw_bar NOW TOTAL RATE: one line, redrawn in place, 40 characters wide.
draw_bar() {
	percent=$(($1 * 100 / $2))
	filled=$((percent * 40 / 100))
	bar=
	while [ ${#bar} -lt 40 ]; do
		if [ ${#bar} -lt $filled ]; then
			bar=$bar#
		else
			bar=$bar.
		fi
	done
	printf '\r[%s] %3d%% %9d of %d bytes  %5d KiB/s' "$bar" $percent "$1" "$2" $(($3 / 1024))
}

# Follows the state while process $1 waits for its answer. The counters move about
# once a second; the rate is taken between two moves.
follow_progress() {
	last=0 last_time=$(date +%s) rate=0 seen=0
	while kill -0 "$1" 2>/dev/null; do
		state=$(ubus -S call fwupdate state) || fail "the state method does not answer."
		now=$(value "$state" '@.progress.now')
		if [ -n "$now" ] && [ "$now" != "$last" ]; then
			time=$(date +%s)
			[ "$time" -eq "$last_time" ] || rate=$(((now - last) / (time - last_time)))
			last=$now last_time=$time seen=$((seen + 1))
			[ ! -t 1 ] || draw_bar "$now" "$(value "$state" '@.progress.total')" $rate
		fi
		sleep 0.2
	done
	[ ! -t 1 ] || echo
}

# update ARGUMENTS: calls the method, follows it and leaves the answer in $reply.
update() {
	printf "# ubus call fwupdate update '%s'\n" "$1"
	ubus -t 60 call fwupdate update "$1" >/var/run/reply &
	caller=$!
	follow_progress $caller
	wait $caller || fail "update was not answered (status $?)."
	reply=$(cat /var/run/reply)
	printf '%s\n' "$reply"
	[ $seen -gt 1 ] || fail "no progress was reported."
	echo "state reported progress $seen times."
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

	say "check asks the update server what it has for this router."
	listen || fail "no events are delivered on the bus."
	echo "# ubus call fwupdate check"
	reply=$(ubus call fwupdate check) || fail "check was not answered."
	printf '%s\n' "$reply"
	expect error_code "$(value "$reply" '@.error_code')" 0
	expect need_update "$(value "$reply" '@.need_update')" 1

	say "Whoever listens on the bus learns the outcome as well."
	next_update_event || fail "the event fwupdate.avaliable did not come."
	printf '%s\n' "$event"

	say "update downloads and verifies; state tells how far it is; the answer comes last."
	show fw_printenv bootpart
	update '{"partition":"firmware"}'
	expect error_code "$(value "$reply" '@.error_code')" 0

	say "The partition to boot from was recorded with fw_setenv."
	show fw_printenv bootpart
	expect bootpart "$(fw_printenv -n bootpart)" firmware

	say "Two seconds after the answer the installer starts."
	await_installer
	show cat /var/log/sysupgrade
	expect "the installer's call" "$(recorded command)" "sysupgrade -F /tmp/fwupdate.bin"
	served=$(sha256sum </srv/update/firmware.bin)
	expect "the checksum of what was installed" "$(recorded sha256)" "${served%% *}"
	echo "This is the checksum of the file on the server."
}

show_refusal() {
	say "The firmware on the server is damaged; update is allowed two attempts."
	before=$(fw_printenv) || fail "the boot environment cannot be read."
	update '{"partition":"firmware","attempts":2}'
	expect error_code "$(value "$reply" '@.error_code')" 3

	say "It was downloaded twice and refused both times."
	show grep 'GET /firmware.bin ' /var/log/nginx-access.log
	expect "the number of downloads" "$(grep -c 'GET /firmware.bin ' /var/log/nginx-access.log)" 2
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
