# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# The daemon on the bus, and the commands that are one call. Part of fwupdate-cli.

# Patience in seconds: `state` may have to wait for an image check, `check` for the
# network, `test` reads the whole image.
state_limit=15 check_limit=60 test_limit=600

# call METHOD ARGUMENTS SECONDS: leaves the answer in `reply`, returns ubus's status.
call() {
	reply=$(ubus -S -t "$3" call fwupdate "$1" "$2" 2>/dev/null) || return
	valid "$reply"
	reply=$text
}

# ask METHOD ARGUMENTS SECONDS: the same, and ends the command when there is no answer.
ask() {
	call "$1" "$2" "$3"
	case $? in
	0) [ -z "$reply" ] || return 0
		fail "$failed" "the daemon gave no answer to '$1'." ;;
	4) no_daemon ;;
	6) fail "$failed" "the bus does not let you call '$1'." "Run this as root." ;;
	7) fail "$failed" "the daemon did not answer '$1' within $3 seconds." "$(advise_patience)" ;;
	255) fail "$absent" "the bus is not there." "Is ubusd running?" ;;
	10) fail "$absent" "the bus went away during '$1'." "Try again in a moment." ;;
	*) fail "$failed" "the daemon refused '$1'." ;;
	esac
}

no_daemon() {
	fail "$absent" "the daemon is not on the bus." \
		"It comes by itself within seconds after a crash; otherwise: /etc/init.d/fwupdate restart"
}

# A restart would end an update.
advise_patience() {
	find_job
	if job_runs; then
		echo "An update is running, and the daemon is at work on it. Leave it alone: 'fwupdate-cli watch' follows it."
	else
		echo "It may be busy with an image or the network. Try again; if that lasts: /etc/init.d/fwupdate restart"
	fi
}

# The daemon's id on the bus, new at each start; nothing without daemon or bus.
object_id() {
	ubus -v list fwupdate 2>/dev/null | sed -n "s/^'fwupdate' @//p"
}

# Raw answers are for programs; a terminal gets them harmless all the same.
print_raw() {
	text=$1
	[ ! -t 1 ] || plain "$1"
	printf '%s\n' "$text"
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
	read_fields "$reply" state=@.state
	[ "$state" != FIRMWARE_CONNECT ] ||
		fail "$busy" "the daemon is downloading for somebody else." \
			"'fwupdate-cli watch' follows it. If nothing moves there: /etc/init.d/fwupdate restart"
	! pidof sysupgrade >/dev/null || fail "$busy" "an image is being installed; the router restarts soon."
}

# tell_error TEXT REASON: the daemon's text, the last line of its log if it has one, and
# what to do about it.
tell_error() {
	plain_line "$1"
	error=$text
	plain_line "$2"
	say "${bad}$error${text:+: $text}${normal}" >&2
	hint=$(hint_for "${text:-$error}")
	[ -n "$hint" ] || hint=$(hint_for "$error")
	[ -z "$hint" ] || printf '%s\n' "$hint" >&2
}

# What the server offers, from the answer to `check` in `reply`.
tell_offer() {
	read_fields "$reply" version=@.version build=@.buildtime notes=@.releasenotes \
		needed=@.need_update forcing=@.force
	plain_line "$version"
	offered=${text:-without a name}
	plain_line "$build"
	offered="version $offered (build $text)"
	board=$(ubus -S call system board 2>/dev/null)
	read_fields "$board" 'running=@["release"]["builddate"]'
	plain_line "$running"
	running=${text:-unknown}
	if [ "$needed" = 1 ]; then
		say "V${offered#v} is available; this router runs build $running."
		[ "$forcing" != 1 ] || say "The server wants it installed whatever is running."
	else
		say "Nothing newer: the server has $offered; this router runs build $running."
	fi
	plain "$notes"
	case $text in
	*[![:space:]]*) printf '\n%s\n\n' "$text" ;;
	esac
}

# The answer to `check` is in `reply` afterwards; ends the command when it failed.
ask_server() {
	ask check '{}' "$check_limit"
	answer=$reply
	read_fields "$answer" code=@.error_code error=@.error_message
	[ "$code" != 0 ] || return 0
	[ -z "$json" ] || print_raw "$answer"
	message=
	! call state '{}' "$state_limit" || read_fields "$reply" message=@.message
	tell_error "$error" "$message"
	exit "$failed"
}

run_check() {
	refuse_while_busy
	ask_server
	if [ -n "$json" ]; then
		print_raw "$reply"
		read_fields "$reply" needed=@.need_update
	else
		tell_offer
	fi
	[ "$needed" != 1 ] || exit "$available"
}

run_test() {
	[ -n "$file" ] || misuse "'test' takes the image's file name."
	check_plain "'test'" "$file" 112
	quoted "$file"
	[ -f "$file" ] || misuse "there is no file '$text'."
	refuse_while_busy
	ask test "{\"file\":\"$file\"}" "$test_limit"
	read_fields "$reply" code=@.check_code
	[ -z "$json" ] || print_raw "$reply"
	if [ "$code" != 0 ]; then
		plain_line "$code"
		tell_error "$(check_text "$code") [$text]" ""
		exit "$failed"
	fi
	[ -n "$json" ] || say "${good}'$file' may be installed on this router.${normal}"
}
