# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# Updating, and what came of it. Part of fwupdate-cli.

a_moment=10 # seconds, for a slow router

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
	files) say "${bad}What was kept of the update in '$jobs' is damaged: the answer is lost.${normal}" ;;
	*) say "${bad}The call to the daemon was ended during the update: the answer is lost.${normal}" ;;
	esac
	if find_daemon && downloads && [ "$command" != result ]; then
		follow_other
		find_daemon
	fi
	if [ -z "$reply" ]; then
		say "The daemon is not on the bus. If that lasts: /etc/init.d/fwupdate restart"
		return
	fi
	read_fields "$reply" state=@.state
	case $state in
	FIRMWARE_CONNECT) say "The daemon is still downloading: 'fwupdate-cli watch' follows it." ;;
	WAIT_DELAY) say "The daemon says that the image is good: it is being installed, and the router restarts soon." ;;
	*) plain_line "$state"
		say "The daemon says that it is doing nothing ($text): start the update again." ;;
	esac
}

tell_answer() {
	read_fields "$answer" version=@.version build=@.buildtime error=@.error_message
	case $1 in
	nothing) say "The server has nothing newer for this router: nothing to do. 'update --force' installs it all the same." ;;
	installing)
		plain_line "$version"
		version=$text
		plain_line "$build"
		say "${good}Version $version (build $text) was downloaded and is good.${normal}"
		tell_installation ;;
	*) stored reason
		tell_error "$error" "$line" ;;
	esac
}

# What the guard refuses is not installed, whatever the daemon has answered before.
tell_installation() {
	if was_refused; then
		say "${bad}Refused: $reason.${normal} Nothing was installed."
		return
	fi
	say "It is being installed; the router restarts in a moment and is away for some minutes."
	if [ -x "$trial_program" ]; then
		say "Should it not restart within five minutes, 'fwupdate-cli result' says why."
	else
		say "Should it not restart within five minutes, 'sysupgrade -T /tmp/fwupdate.bin' says why."
	fi
}

# With what the guard did, where there is one.
print_job() {
	job_as_json
	read_guard
	guard_as_json
	[ "$guard_json" = '{}' ] || line="${line%\}},\"guard\":$guard_json}"
	print_raw "$line"
}

# Shows the last job's outcome and ends with its status; `read_outcome` has been called.
tell_outcome() {
	read_guard
	if [ -n "$json" ]; then
		if [ "$command" = update ] && [ "$outcome" = answered ]; then
			print_raw "$answer"
		else
			print_job
		fi
	else
		case $outcome in
		none) say "No update was started with fwupdate-cli since the router started."
			tell_trial
			tell_guard
			tell_refusal ;;
		running) say "An update is running; 'fwupdate-cli watch' follows it." ;;
		answered) tell_answer "$detail" ;;
		refused) stored error
			plain_line "$line"
			say "${bad}The bus refused the update (status $detail): $text${normal}" ;;
		lost) tell_lost "$detail" ;;
		esac
	fi
	case $outcome:$detail in
	answered:installing) ! was_refused || exit "$failed"
		exit 0 ;;
	answered:nothing) exit 0 ;;
	answered:busy | running:*) exit "$busy" ;;
	refused:4) exit "$absent" ;;
	*) exit "$failed" ;;
	esac
}

run_watch() {
	read_outcome
	if [ "$outcome" = running ]; then
		follow_job
		read_outcome
	elif [ -z "$json" ] && [ "$outcome" != lost ] && call state '{}' "$state_limit" && downloads; then
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
	where=
	[ -z "$partition" ] || where=" on the partition '$partition'"
	printf '%s' "Install it$where now? The router will restart. [y/N] "
	read -r consent || consent=
	case $consent in
	[yY] | [yY][eE][sS]) ;;
	*) say "Nothing was changed."
		exit 0 ;;
	esac
}

# The server is asked before each update, here when somebody is to see the offer, else by
# the keeper: sets `asked`.
show_offer() {
	asked=
	[ -z "$json$detach" ] || [ -z "$yes" ] || return 0
	ask_server
	asked=yes
	tell_offer
	[ -n "$force" ] || [ "$needed" = 1 ] || exit 0
	[ -z "$booted" ] || [ "$partition" != "$booted" ] ||
		say "It replaces the firmware that runs, so there is no way back to that one."
	ask_consent
}

run_update() {
	if [ -z "$yes" ] && { [ ! -t 0 ] || [ ! -t 1 ] || [ -n "$json" ]; }; then
		misuse "without a terminal to ask you on, and with --json, 'update' takes --yes."
	fi
	choose_partition
	[ "$attempts" != 1 ] || echo "With one attempt, a download that cannot even start blocks" \
		"the daemon until it is restarted." >&2
	refuse_while_busy
	show_offer
	[ -n "$json" ] || [ -z "$partition" ] || say "The partition '$partition' will be written."
	# From the first mark of the job on nobody's signal leaves it half made; the keeper
	# inherits that.
	trap '' HUP INT QUIT TERM
	claim_job || fail "$busy" "an update is running already." "'fwupdate-cli watch' follows it."
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
