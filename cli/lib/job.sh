# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# The running update and its answer, as kept in /tmp. Part of fwupdate-cli and fwupdate-job;
# keeper.sh writes what is read here, and the layout is at its top. Reading starts no
# process but one jsonfilter for an answer, and waits for nothing.

jobs=/tmp/fwupdate-cli

# Somebody else's folder, or a link to one, is not trusted with anything.
check_folder() {
	[ -e "$jobs" ] || [ -L "$jobs" ] || return 0
	# shellcheck disable=SC3067 # BusyBox has -O
	if [ -L "$jobs" ] || [ ! -d "$jobs" ] || [ ! -O "$jobs" ]; then
		fail "$failed" "'$jobs' is not a folder of yours." "Remove it: rm -rf $jobs"
	fi
}

# stored NAME: leaves in `line` the first line of a file of the job; fails when it is not
# there or not whole.
stored() {
	line=
	{ IFS= read -r line <"$job/$1"; } 2>/dev/null
}

stored_number() {
	stored "$1" && is_number "$line"
}

# is_alive PROCESS: 0 and 1 would be any process.
is_alive() {
	is_number "$1" && [ "$1" -gt 1 ] && kill -0 "$1" 2>/dev/null
}

# Before the keeper has begun, the command that made the folder runs the job. Then the keeper
# and its watcher do; one number alone may belong to a stranger by now.
job_lives() {
	if stored_number pid; then
		is_alive "$line" || return
		! stored_number watcher || is_alive "$line"
	else
		stored_number claim && is_alive "$line"
	fi
}

# A job whose command was killed before its keeper began never was: nothing was asked of the
# daemon.
job_counts() {
	[ -e "$job/end" ] || stored_number pid || job_lives
}

# Sets `job` to the last job's folder, or to nothing; `newest` to the highest number there is.
find_job() {
	check_folder
	newest=0 last='' last_number=0
	for job in "$jobs"/job.*; do
		number=${job##*.}
		case $number in
		'' | 0* | *[!0-9]* | ??????????*) continue ;;
		esac
		[ "$number" -le "$newest" ] || newest=$number
		[ "$number" -le "$last_number" ] || ! job_counts || last=$job last_number=$number
	done
	job=$last
}

# The end is written before the watcher ends, so it is looked for once more.
job_runs() {
	[ -n "$job" ] && [ ! -e "$job/end" ] && job_lives && [ ! -e "$job/end" ]
}

# Sets the four to what the daemon was or will be given, `arguments` to the same in JSON.
read_arguments() {
	forced=no partition='' timeout=900 attempts=3 delay=0
	{ read -r forced partition timeout attempts delay <"$job/arguments"; } 2>/dev/null || return
	[ "$partition" != - ] || partition=
	case $forced:$partition in
	*[!A-Za-z0-9._/:-]*) return 1 ;;
	esac
	is_number "$timeout" && is_number "$attempts" && is_number "$delay" || return
	[ "$forced" = yes ] || forced=
	arguments="{${forced:+\"force\":\"1\",}${partition:+\"partition\":\"$partition\",}\"timeout\":$timeout,\"attempts\":$attempts,\"delay\":$delay}"
}

# Sets `outcome`, `detail` and `ended` from the end that was written down. What is not whole
# is as good as lost.
read_end() {
	outcome=lost detail=call ended=''
	[ -e "$job/end" ] || return 0
	detail=files
	{ read -r kind what when <"$job/end"; } 2>/dev/null && is_number "$when" || return 0
	case $kind:$what in
	answered:installing | answered:nothing | answered:failed | answered:busy)
		stored answer && answer=$(jsonfilter -q -s "$line" -e @ 2>/dev/null) || return 0
		case $answer in
		'{'*'}') ;;
		*) return 0 ;;
		esac ;;
	refused:*[!0-9]* | refused:????* | refused:0?* | refused:) return 0 ;;
	refused:* | lost:bus | lost:daemon | lost:call) ;;
	*) return 0 ;;
	esac
	outcome=$kind detail=$what ended=$when
}

# Sets `outcome`: none, running, answered, refused or lost; `detail`, `ended`, and what the
# job's files hold. An update that starts meanwhile clears them away: then once more.
read_outcome() {
	outcome=none detail='' ended='' started=0 arguments='{}' answer=''
	find_job
	[ -n "$job" ] || return 0
	if job_runs; then
		outcome=running
	else
		read_end
	fi
	! stored_number started || started=$line
	read_arguments || :
	[ -d "$job" ] || read_outcome
}

# Sets `line` to the whole job as one JSON object; `read_outcome` has been called.
job_as_json() {
	line='{"job":"none"}'
	[ "$outcome" != none ] || return 0
	line="{\"job\":\"$outcome\",\"started\":$started,\"arguments\":$arguments"
	case $outcome in
	answered) line="$line,\"ended\":$ended,\"result\":\"$detail\",\"answer\":$answer" ;;
	refused) line="$line,\"ended\":$ended,\"status\":$detail" ;;
	lost) line="$line${ended:+,\"ended\":$ended},\"lost\":\"$detail\"" ;;
	esac
	line="$line}"
}
