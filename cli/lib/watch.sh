# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# Following an update, and what the daemon is doing. Part of fwupdate-cli.

# Ctrl-C, a hang-up and a kill end the watching only.
begin_watching() {
	old_time=0 old_now=0 mark_time=0 mark_now=0 last_now=0 step_shown=''
	for signal in HUP INT QUIT TERM; do
		# shellcheck disable=SC2064 # the signal's name is wanted now
		trap "leave_watching $signal" $signal
	done
}

leave_watching() {
	end_watching
	printf '%s\n' "Stopped watching; the update goes on. 'fwupdate-cli watch' follows it again." >&2
	kill -s "$1" $$
}

end_watching() {
	trap - HUP INT QUIT TERM
	clear_line
}

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
	read_fields "$reply" now=@.progress.now total=@.progress.total
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
	read_fields "$reply" state=@.state
	case $state in
	NETWORK_GET | XML_CONNECT | XML_GET | XML_PARSE) show_step "Asking the update server ..." ;;
	FIRMWARE_CONNECT) show_download ;;
	FIRMWARE_CHECK) show_step "Checking the firmware ..." ;;
	FIRMWARE_UPDATE) show_step "Recording the boot partition ..." ;;
	WAIT_DELAY) show_step "The firmware is good; waiting for its installation ..." ;;
	esac
}

# Until the running job has ended. Quiet: for --json.
follow_job() {
	begin_watching
	while job_runs; do
		[ -n "$json" ] || show_state
		sleep 1
	done
	end_watching
}

# By the state in `reply`.
downloads() {
	read_fields "$reply" state=@.state
	[ "$state" = FIRMWARE_CONNECT ]
}

# An update whose answer does not come here, somebody else's or one whose call was lost:
# only the download can be seen.
follow_other() {
	begin_watching
	say "The daemon is downloading; its answer does not come here."
	while call state '{}' "$state_limit" && downloads; do
		show_download
		sleep 1
	done
	end_watching
	say "The download has ended."
}

run_status() {
	[ -n "$json" ] || tell_hanging_fwtool
	ask state '{}' "$state_limit"
	if [ -n "$json" ]; then
		print_raw "$reply"
		return
	fi
	read_fields "$reply" state=@.state message=@.message now=@.progress.now total=@.progress.total
	plain_line "$state"
	state=$text
	plain_line "$message"
	message=$text
	find_job
	case $state in
	FIRMWARE_CONNECT)
		if is_number "$now" && is_number "$total"; then
			say "Downloading: $(in_words "$now") of $(in_words "$total")."
		else
			say "Downloading."
		fi ;;
	WAIT_DELAY) say "An image passed its check; it is being installed, or was handed to the installer." ;;
	*)
		if job_runs; then
			say "An update is running (state $state)."
		else
			say "Idle (state $state)."
		fi ;;
	esac
	[ -z "$message" ] || say "Last log line: $message"
	read_guard
	tell_trial
	tell_guard
	tell_refusal
}
