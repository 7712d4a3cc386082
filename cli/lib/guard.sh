# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# What the guard did: an image that was not let in, a firmware on trial, what came of the
# last one. Part of fwupdate-cli and fwupdate-job. guard/ writes what is read here; reading
# starts no process.

guard_folder=/tmp/fwupdate-guard
trial_program=/usr/lib/fwupdate/trial
patience_with_fwtool=120 # seconds; a check of an image takes some

# read_guard: sets `refused_at` and `reason`; `trial_left`, seconds, and `trial_checks`, lines
# "NAME ok|waiting"; `came`, `came_build`, `came_check` and `came_version`. What is not there
# is empty.
read_guard() {
	refused_at='' reason='' trial_left='' trial_checks='' came='' came_build='' came_check='' came_version=''
	# shellcheck disable=SC3067 # BusyBox has -O
	[ -d $guard_folder ] && [ ! -L $guard_folder ] && [ -O $guard_folder ] || return 0
	{ read -r refused_at reason <$guard_folder/refused; } 2>/dev/null
	is_number "$refused_at" || refused_at='' reason=''
	plain_line "$reason"
	reason=$text
	read_trial
	{ read -r came came_build came_check came_version <$guard_folder/outcome; } 2>/dev/null
	case $came in
	confirmed) came_version=$came_check came_check='' ;;
	taken-back) ;;
	*) came='' came_build='' came_check='' came_version='' ;;
	esac
}

read_trial() {
	[ -e $guard_folder/trial ] || return 0
	{
		read -r trial_end
		while read -r name result; do
			case $name in
			*[!A-Za-z0-9._-]*) ;;
			*) trial_checks="$trial_checks${trial_checks:+$newline}$name $result" ;;
			esac
		done
	} <$guard_folder/trial
	read -r up _ </proc/uptime
	is_number "$trial_end" || return 0
	trial_left=$((trial_end - ${up%.*}))
	[ $trial_left -gt 0 ] || trial_left=0
}

# Sets `guard_json`; `read_guard` has been called.
guard_as_json() {
	guard_json=
	case $reason in
	*[\\\"]*) reason="see logread" ;;
	esac
	[ -z "$refused_at" ] || guard_json="\"refused\":{\"time\":$refused_at,\"reason\":\"$reason\"}"
	if [ -n "$trial_left" ]; then
		checks=
		while read -r name result; do
			[ "$result" = ok ] && result=true || result=false
			[ -z "$name" ] || checks="$checks${checks:+,}\"$name\":$result"
		done <<LIST
$trial_checks
LIST
		guard_json="$guard_json${guard_json:+,}\"trial\":{\"left\":$trial_left,\"checks\":{$checks}}"
	fi
	case $came$came_build$came_version$came_check in
	'' | *[!A-Za-z0-9._+~-]*) ;;
	*) guard_json="$guard_json${guard_json:+,}\"outcome\":{\"result\":\"$came\",\"build\":\"$came_build\",\"version\":\"$came_version\"${came_check:+,\"check\":\"$came_check\"}}" ;;
	esac
	guard_json="{$guard_json}"
}

# was_refused: the update of the job was handed to the guard, which did not let it in; two
# seconds after the daemon's answer at the earliest.
was_refused() {
	[ -n "$refused_at" ] && [ "$refused_at" -gt "$started" ]
}

# check_text CHECK: leaves in `text` what it means that this one did not succeed.
failed_check_text() {
	case $1 in
	10-daemon) text="the update daemon did not answer" ;;
	20-network) text="a network interface that was up before stayed down" ;;
	30-server) text="the update server could not be reached" ;;
	boot) text="it did not start" ;;
	installation) text="it was not written whole" ;;
	confirm) text="it has no service that could confirm it" ;;
	hand) text="somebody asked for it" ;;
	none) text="it has no checks" ;;
	*) text="a check of this router's own failed" ;;
	esac
}

# What came of the last trial, as one line; nothing without one.
tell_guard() {
	case $came in
	taken-back)
		failed_check_text "$came_check"
		plain_line "Build $came_build was tried and taken back: $text ($came_check)"
		say "${bad}$text${normal}" ;;
	confirmed)
		plain_line "Build $came_build ($came_version) was tried and confirmed."
		say "$text" ;;
	esac
}

tell_refusal() {
	[ -z "$refused_at" ] || say "${bad}The last image was refused: $reason.${normal}"
}

tell_trial() {
	[ -n "$trial_left" ] || return 0
	say "The firmware that runs is on trial; without all checks it goes back in $((trial_left / 60)) min $((trial_left % 60)) s:"
	say "$trial_checks"
}

# Sets `hanging` to a fwtool that the daemon started and that has run for too long, or to
# nothing: on some forged images it never ends, and the daemon waits for it.
find_hanging_fwtool() {
	hanging=
	read -r up _ </proc/uptime
	for stat in /proc/[0-9]*/stat; do
		{ read -r line <"$stat"; } 2>/dev/null || continue
		case $line in
		*' (fwtool) '*) ;;
		*) continue ;;
		esac
		process=${line%% *}
		# Behind the name: state, parent, and as the 20th when it began, in hundredths.
		# shellcheck disable=SC2086 # words
		set -- ${line#*) }
		[ $((${up%.*} - ${20} / 100)) -ge $patience_with_fwtool ] || continue
		! is_daemons "$2" || hanging=$process
	done
}

# is_daemons PROCESS: it is the daemon, or the shell that it runs a command with.
is_daemons() {
	{ read -r line <"/proc/$1/stat"; } 2>/dev/null || return
	case $line in
	*' (fwupdate) '*) return 0 ;;
	*' (sh) '*) ;;
	*) return 1 ;;
	esac
	line=${line#*) ? }
	{ read -r line <"/proc/${line%% *}/stat"; } 2>/dev/null || return
	case $line in
	*' (fwupdate) '*) ;;
	*) return 1 ;;
	esac
}

tell_hanging_fwtool() {
	find_hanging_fwtool
	[ -z "$hanging" ] || echo "fwtool (process $hanging) does not come to an end with the image, and the daemon waits" \
		"for it: 'kill $hanging' lets it go on." >&2
}

# The daemon answers with its own failure then, and goes on.
end_hanging_fwtool() {
	find_hanging_fwtool
	! is_alive "$hanging" || kill -KILL "$hanging"
}

# The guard takes a build that was taken back only when it finds this.
ask_guard_for_force() {
	withdraw_force
	[ -z "$force" ] || [ ! -x $trial_program ] || [ ! -d $guard_folder ] || : >$guard_folder/force
}

# That of an update that came to nothing does not count for the next.
withdraw_force() {
	[ ! -e $guard_folder/force ] || rm -f $guard_folder/force
}

need_guard() {
	[ -x "$trial_program" ] || fail "$failed" "this router has no guard." "It is in the package fwupdate-guard."
}

variable() {
	fw_printenv -n "$1" 2>/dev/null
}

refuse_others_trial() {
	[ "$(variable upgrade_available)" != 1 ] ||
		fail "$failed" "the trial is another updater's." "Who is sure ends it with: fw_setenv upgrade_available 0"
}

run_confirm() {
	need_guard
	if ! $trial_program pending; then
		refuse_others_trial
		say "Nothing is on trial."
		return
	fi
	$trial_program confirm || fail "$failed" "the boot environment cannot be written."
	[ ! -e /etc/init.d/fwupdate-confirm ] || /etc/init.d/fwupdate-confirm stop
	say "${good}The firmware that runs is confirmed.${normal}"
}

run_rollback() {
	need_guard
	other=$(variable fwupdate_before) runs=''
	{ read -r runs _ <$guard_folder/start; } 2>/dev/null
	[ -n "$other" ] || fail "$failed" "no update was made that could be taken back."
	[ "$other" != "$runs" ] || fail "$failed" "the firmware of before runs already, from '$runs'."
	$trial_program pending || refuse_others_trial
	is_whole "$other" || fail "$failed" "there is no whole firmware in '$other'."
	# shellcheck disable=SC2046 # words
	set -- $(variable fwupdate_trial)
	plain_line "Go back to the firmware in '$other' (${4:--}, build ${3:--})? The router restarts. [y/N] "
	if [ -z "$yes" ]; then
		{ [ -t 0 ] && [ -t 1 ]; } || misuse "without a terminal to ask you on 'rollback' takes --yes."
		printf '%s' "$text"
		read -r consent || consent=
		case $consent in
		[yY] | [yY][eE][sS]) ;;
		*) say "Nothing was changed." && return ;;
		esac
	fi
	$trial_program back hand || fail "$failed" "the boot environment cannot be written."
	say "The router restarts with the firmware in '$other'."
}

# is_whole PARTITION: a U-Boot image whose checksums are right. Others cannot be told.
is_whole() {
	device=$(sed -n "s/^\(mtd[0-9]*\):.* \"$1\"\$/\1/p" /proc/mtd)
	[ -n "$device" ] && [ -r "/dev/$device" ] || return
	device=/dev/$device
	header=$(dd if="$device" bs=64 count=1 2>/dev/null | hexdump -v -e '64/1 "%02x"')
	# Four bytes are eight digits: magic, own checksum, time, size, load, entry, data's checksum.
	case $header in
	27051956*) ;;
	*) return 1 ;;
	esac
	size=$((0x$(echo "$header" | cut -c 25-32)))
	[ "$({ dd if="$device" bs=4 count=1 && printf '\0\0\0\0' && dd if="$device" bs=4 skip=2 count=14; } \
		2>/dev/null | crc32)" = "$(echo "$header" | cut -c 9-16)" ] &&
		[ "$({ dd bs=64 count=1 of=/dev/null && dd bs=65536 count=$((size / 65536)) &&
			head -c $((size % 65536)); } <"$device" 2>/dev/null | crc32)" = "$(echo "$header" | cut -c 49-56)" ]
}

# The checksum of standard input, which gzip writes behind what it packed, last byte first.
crc32() {
	# shellcheck disable=SC2046 # words
	set -- $(gzip -1 -c | tail -c 8 | head -c 4 | hexdump -v -e '4/1 "%02x "')
	echo "$4$3$2$1"
}
