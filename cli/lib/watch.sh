# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# Updating, following an update, and telling what came of it. Part of fwupdate-cli.

# Ctrl-C, a hang-up and a kill end the watching only.
leave_watching() {
	trap - HUP INT TERM
	clear_line
	printf '%s\n' "Stopped watching; the update goes on. 'fwupdate-cli watch' follows it again." >&2
	kill -s "$1" $$
}

step_shown=
# One line per step.
show_step() {
	[ "$step_shown" != "$1" ] || return 0
	step_shown=$1
	say "$1"
}

# Sets `uptime`, hundredths of a second; the clock of the day may be set meanwhile.
read_uptime() {
	read -r uptime _ </proc/uptime
	uptime=${uptime%.*}${uptime#*.}
}

# Sets `rate` from two marks, the older of which lies five to ten seconds back. Fewer
# bytes than before are another attempt.
measure_rate() {
	read_uptime
	if [ "$old_time" -eq 0 ] || [ "$1" -lt "$last_now" ]; then
		old_time=$uptime old_now=$1 mark_time=$uptime mark_now=$1
	elif [ $((uptime - mark_time)) -ge 500 ]; then
		old_time=$mark_time old_now=$mark_now mark_time=$uptime mark_now=$1
	fi
	last_now=$1 rate=0
	[ $((uptime - old_time)) -lt 100 ] || rate=$((($1 - old_now) / ((uptime - old_time) / 100)))
}

show_download() {
	now=$(raw_field @.progress.now)
	total=$(raw_field @.progress.total)
	if ! is_number "$now" || ! is_number "$total" || [ "$total" -eq 0 ]; then
		show_step "Asking for the firmware ..."
		return
	fi
	[ "$now" -ge "$last_now" ] || step_shown=
	show_step "Downloading $(in_words "$total") ..."
	measure_rate "$now"
	[ -z "$screen" ] || draw_progress "$now" "$total" "$rate"
}

# One look at the daemon.
show_state() {
	if ! call state '{}' "$state_limit"; then
		return
	fi
	state=$(field @.state)
	case $state in
	NETWORK_GET | XML_CONNECT | XML_GET | XML_PARSE) show_step "Asking the update server ..." ;;
	FIRMWARE_CONNECT) show_download ;;
	FIRMWARE_CHECK) show_step "Checking the firmware ..." ;;
	FIRMWARE_UPDATE) show_step "Recording the boot partition ..." ;;
	WAIT_DELAY) show_step "The firmware is good; waiting for its installation ..." ;;
	esac
}

forget_progress() {
	old_time=0 old_now=0 mark_time=0 mark_now=0 last_now=0 step_shown=''
}

# Until the running job has ended. Quiet: for --json.
follow_job() {
	forget_progress
	for signal in HUP INT TERM; do
		# shellcheck disable=SC2064 # the signal's name is wanted now
		trap "leave_watching $signal" $signal
	done
	while job_runs; do
		[ -n "$json" ] || show_state
		sleep 1
	done
	clear_line
	trap - HUP INT TERM
}

# An update whose answer does not come here, somebody else's or one whose call was lost:
# only the download can be seen.
follow_other() {
	forget_progress
	say "The daemon is downloading; its answer does not come here."
	while call state '{}' "$state_limit" && [ "$(field @.state)" = FIRMWARE_CONNECT ]; do
		show_download
		sleep 1
	done
	clear_line
	say "The download has ended."
}

# After a restart the daemon is back on the bus within seconds. Leaves its state in
# `reply`; `result` does not wait.
find_daemon() {
	patience=$a_moment
	until call state '{}' "$state_limit"; do
		[ "$command" != result ] && [ "$patience" -gt 0 ] || return 1
		patience=$((patience - 1))
		sleep 1
	done
}

# Says that the answer is lost, and what the daemon's state tells instead.
tell_lost() {
	case $1 in
	bus) say "${bad}The bus was restarted during the update: the answer is lost.${normal}" ;;
	daemon) say "${bad}The daemon ended or was restarted during the update: there is no answer.${normal}" ;;
	*) say "${bad}The call to the daemon was ended during the update: the answer is lost.${normal}" ;;
	esac
	if find_daemon && [ "$(field @.state)" = FIRMWARE_CONNECT ] && [ "$command" != result ]; then
		follow_other
		find_daemon
	fi
	if [ -z "$reply" ]; then
		say "The daemon is not on the bus. If that lasts: /etc/init.d/fwupdate restart"
		return
	fi
	case $(field @.state) in
	FIRMWARE_CONNECT) say "The daemon is still downloading: 'fwupdate-cli watch' follows it." ;;
	WAIT_DELAY) say "The daemon says that the image is good: it is being installed, and the router restarts soon." ;;
	*) say "The daemon says that it is doing nothing ($(field @.state)): start the update again." ;;
	esac
}

tell_answer() {
	case $1 in
	nothing) say "This router runs what the server has; nothing to do. 'update --force' installs it all the same." ;;
	installing)
		say "${good}Version $(field @.version) (build $(field @.buildtime)) was downloaded and is good.${normal}"
		say "It is being installed; the router restarts in a moment and is away for some minutes."
		say "Should it not restart within five minutes, 'sysupgrade -T /tmp/fwupdate.bin' says why." ;;
	*)
		if [ "$(field @.error_code)" = 1 ]; then
			tell_server_error
		else
			tell_error "$(field @.error_message)"
		fi ;;
	esac
}

# Shows the last job's outcome and ends with its status; `read_outcome` has been called.
tell_outcome() {
	[ "$outcome" != answered ] || reply=$answer
	if [ -n "$json" ]; then
		if [ "$command" = update ] && [ "$outcome" = answered ]; then
			print_raw "$reply"
		else
			print_job
		fi
	else
		case $outcome in
		none) say "No update was started with fwupdate-cli since the router started." ;;
		running) say "An update is running; 'fwupdate-cli watch' follows it." ;;
		answered) tell_answer "$detail" ;;
		refused) say "${bad}The bus refused the update (status $detail): $(plain_line "$(stored error)")${normal}" ;;
		lost) tell_lost "$detail" ;;
		esac
	fi
	case $outcome:$detail in
	answered:installing | answered:nothing) exit 0 ;;
	answered:busy | running:*) exit "$busy" ;;
	refused:4) exit "$absent" ;;
	*) exit "$failed" ;;
	esac
}

run_status() {
	ask state '{}' "$state_limit"
	if [ -n "$json" ]; then
		print_raw "$reply"
		return
	fi
	state=$(field @.state)
	message=$(field @.message)
	read_outcome
	case $state in
	FIRMWARE_CONNECT)
		now=$(raw_field @.progress.now)
		total=$(raw_field @.progress.total)
		if is_number "$now" && is_number "$total"; then
			say "Downloading: $(in_words "$now") of $(in_words "$total")."
		else
			say "Downloading."
		fi ;;
	WAIT_DELAY) say "An image passed its check; it is being installed, or was handed to the installer." ;;
	*)
		if [ "$outcome" = running ]; then
			say "An update is running (state $state)."
		else
			say "Idle (state $state)."
		fi ;;
	esac
	[ -z "$message" ] || say "Last log line: $message"
}

run_watch() {
	read_outcome
	if [ "$outcome" = running ]; then
		follow_job
		read_outcome
	elif [ -z "$json" ] && [ "$outcome" != lost ] && call state '{}' "$state_limit" &&
		[ "$(field @.state)" = FIRMWARE_CONNECT ]; then
		follow_other
		exit 0
	fi
	tell_outcome
}

run_result() {
	read_outcome
	tell_outcome
}

ask_consent() {
	[ -z "$yes" ] || return 0
	printf 'Install it now? The router will restart. [y/N] '
	read -r consent || consent=
	case $consent in
	[yY] | [yY][eE][sS]) ;;
	*) say "Nothing was changed." && exit 0 ;;
	esac
}

run_update() {
	if [ -z "$yes" ] && { [ ! -t 0 ] || [ ! -t 1 ] || [ -n "$json" ]; }; then
		misuse "without a terminal to ask you on, and with --json, 'update' takes --yes."
	fi
	[ "$attempts" != 1 ] || echo "With one attempt, a download that cannot even start blocks" \
		"the daemon until it is restarted." >&2
	refuse_while_busy
	if [ -z "$json$detach" ] || [ -z "$yes" ]; then
		ask_server
		tell_offer
		[ -n "$force" ] || [ "$(field @.need_update)" = 1 ] || exit 0
		ask_consent
	fi
	claim_job "{${force:+\"force\":\"1\",}${partition:+\"partition\":\"$partition\",}\"timeout\":$timeout,\"attempts\":$attempts,\"delay\":$delay}" ||
		fail "$busy" "an update is running already." "'fwupdate-cli watch' follows it."
	start_job
	if [ -n "$detach" ]; then
		read_outcome
		if [ -n "$json" ]; then
			print_job
		else
			say "The update goes on by itself. 'fwupdate-cli watch' follows it, 'fwupdate-cli result' has its result."
		fi
		exit 0
	fi
	follow_job
	read_outcome
	tell_outcome
}
