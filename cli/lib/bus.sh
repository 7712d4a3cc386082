# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# The daemon on the bus, and the commands that are one call. Part of fwupdate-cli.

# Patience in seconds: `state` may have to wait for an image check, `check` for the
# network, `test` reads the whole image.
state_limit=15 check_limit=60 test_limit=600

# call METHOD ARGUMENTS SECONDS: leaves the answer in `reply`, returns ubus's status.
call() {
	reply=$(ubus -S -t "$3" call fwupdate "$1" "$2" 2>/dev/null)
}

# ask METHOD ARGUMENTS SECONDS: the same, and ends the command when there is no answer.
ask() {
	call "$1" "$2" "$3"
	case $? in
	0) [ -z "$reply" ] || return 0
		fail "$failed" "the daemon gave no answer to '$1'." ;;
	4) no_daemon ;;
	6) fail "$failed" "the bus does not let you call '$1'." "Run this as root." ;;
	7) fail "$failed" "the daemon did not answer '$1' within $3 seconds." \
		"It may be busy with an image or the network. Try again; if that lasts: /etc/init.d/fwupdate restart" ;;
	255) fail "$absent" "the bus is not there." "Is ubusd running?" ;;
	10) fail "$absent" "the bus went away during '$1'." "Try again in a moment." ;;
	*) fail "$failed" "the daemon refused '$1'." ;;
	esac
}

no_daemon() {
	fail "$absent" "the daemon is not on the bus." \
		"It comes by itself within seconds after a crash; otherwise: /etc/init.d/fwupdate restart"
}

# raw_field EXPRESSION [JSON]: as the daemon sent it, control characters and all.
raw_field() {
	jsonfilter -s "${2-$reply}" -e "$1" 2>/dev/null
}

# field EXPRESSION [JSON]: one harmless line.
field() {
	plain_line "$(raw_field "$@")"
}

# The daemon's id on the bus, new at each start; nothing without daemon or bus.
object_id() {
	ubus -v list fwupdate 2>/dev/null | sed -n "s/^'fwupdate' @//p"
}

# Raw answers are for programs; a terminal gets them harmless all the same.
print_raw() {
	if [ -t 1 ]; then
		printf '%s\n' "$1" | plain_text
	else
		printf '%s\n' "$1"
	fi
}

is_number() {
	case $1 in
	'' | *[!0-9]* | ????????????????*) return 1 ;;
	esac
}

# A `check`, a `test` or another `update` rewrites the state and what the daemon knows of
# the server, under the eyes of whoever follows a running update; and an installer still
# reads the image that the next download would replace.
refuse_while_busy() {
	find_job
	if job_runs; then
		fail "$busy" "an update is running already." "'fwupdate-cli watch' follows it."
	fi
	ask state '{}' "$state_limit"
	[ "$(field @.state)" != FIRMWARE_CONNECT ] ||
		fail "$busy" "the daemon is downloading for somebody else." \
			"'fwupdate-cli watch' follows it. If nothing moves there: /etc/init.d/fwupdate restart"
	! pidof sysupgrade >/dev/null || fail "$busy" "an image is being installed; the router restarts soon."
}

# tell_error TEXT REASON: the daemon's text, the last line of its log if it has one, and
# what to do about it.
tell_error() {
	say "${bad}$1${2:+: $2}${normal}" >&2
	hint=$(hint_for "${2:-$1}")
	[ -n "$hint" ] || hint=$(hint_for "$1")
	[ -z "$hint" ] || printf '%s\n' "$hint" >&2
}

# What the server offers, from the answer to `check` in `reply`.
tell_offer() {
	offered=$(field @.version)
	build=$(field @.buildtime)
	notes=$(raw_field @.releasenotes | plain_text)
	board=$(ubus -S call system board 2>/dev/null)
	running=$(field '@["release"]["builddate"]' "$board")
	running=${running:-unknown}
	if [ "$(field @.need_update)" = 1 ]; then
		say "Version ${offered:-without a name} (build $build) is available; this router runs build $running."
		[ "$(field @.force)" != 1 ] || say "The server wants it installed whatever is running."
	else
		say "Nothing newer: the server has version ${offered:-without a name} (build $build); this router runs build $running."
	fi
	case $notes in
	*[![:space:]]*) printf '\n%s\n\n' "$notes" ;;
	esac
}

# The answer to `check` is in `reply` afterwards; ends the command when it failed.
ask_server() {
	ask check '{}' "$check_limit"
	[ "$(field @.error_code)" = 0 ] && return
	text=$(field @.error_message)
	call state '{}' "$state_limit"
	tell_error "$text" "$(field @.message)"
	exit "$failed"
}

run_check() {
	refuse_while_busy
	if [ -n "$json" ]; then
		ask check '{}' "$check_limit"
		print_raw "$reply"
		[ "$(field @.error_code)" = 0 ] || exit "$failed"
	else
		ask_server
		tell_offer
	fi
	[ "$(field @.need_update)" != 1 ] || exit "$available"
}

run_test() {
	[ -n "$file" ] || misuse "'test' takes the image's file name."
	check_plain "'test'" "$file" 112
	[ -f "$file" ] || misuse "there is no file '$file'."
	refuse_while_busy
	arguments="{\"file\":\"$file\"${partition:+,\"partition\":\"$partition\"}}"
	ask test "$arguments" "$test_limit"
	code=$(field @.check_code)
	if [ -n "$json" ]; then
		print_raw "$reply"
	elif [ "$code" = 0 ]; then
		say "${good}'$file' may be installed on this router.${normal}"
	else
		tell_error "$(check_text "$code") [$code]" ""
	fi
	[ "$code" = 0 ] || exit "$failed"
}
