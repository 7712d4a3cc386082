# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# The running update and its answer, kept in /tmp. Part of fwupdate-cli; the layout is at
# the top of it.

jobs=/tmp/fwupdate-cli
longest_call=2147483 # seconds; the most that the ubus command can count
a_moment=10	     # seconds, for a slow router
kept="arguments started object image pid call answer.part error reason gone end.part"
look_every=5	     # seconds between two looks whether the daemon is still the same

# Somebody else's folder, or a link to one, is not trusted with anything.
check_folder() {
	[ -e "$jobs" ] || [ -L "$jobs" ] || return 0
	# shellcheck disable=SC3067 # BusyBox has -O
	if [ -L "$jobs" ] || [ ! -d "$jobs" ] || [ ! -O "$jobs" ]; then
		fail "$failed" "'$jobs' is not a folder of yours." "Remove it: rm -rf $jobs"
	fi
}

# Sets `job` to the last job's folder, or to nothing, and `number` to its number.
find_job() {
	check_folder
	job='' number=0
	for folder in "$jobs"/job.*; do
		if [ -d "$folder" ] && [ "${folder##*.}" -gt "$number" ] 2>/dev/null; then
			job=$folder number=${folder##*.}
		fi
	done
}

# stored NAME: one line of the job's folder, or nothing.
stored() {
	head -n 1 "$job/$1" 2>/dev/null
}

# Both processes of a job; one number alone may belong to a stranger by now.
job_lives() {
	keeper=$(stored pid)
	caller=$(stored call)
	[ -n "$keeper" ] && kill -0 "$keeper" 2>/dev/null || return 1
	[ -z "$caller" ] || kill -0 "$caller" 2>/dev/null
}

# A job that was claimed a moment ago has no keeper yet, and a keeper whose call has
# ended writes the end down in a moment: both get some seconds.
job_runs() {
	[ -n "$job" ] || return 1
	patience=$a_moment
	while [ ! -e "$job/end" ]; do
		job_lives && return
		if [ -n "$keeper" ] && ! kill -0 "$keeper" 2>/dev/null; then
			return 1
		fi
		[ $patience -gt 0 ] || return 1
		patience=$((patience - 1))
		sleep 1
	done
	return 1
}

# Sets `outcome`: none, running, answered, refused or lost; `detail`, `ended`, and what the
# job's files hold. An update that starts meanwhile clears them away: then once more.
read_outcome() {
	outcome=none detail='' ended=''
	find_job
	[ -n "$job" ] || return 0
	outcome=running
	if ! job_runs; then
		outcome=lost detail=call
		[ ! -e "$job/end" ] || read -r outcome detail ended <"$job/end"
	fi
	started=$(stored started)
	started=${started:-0}
	arguments=$(stored arguments)
	arguments=${arguments:-"{}"}
	answer=$(stored answer)
	[ -d "$job" ] || read_outcome
}

# keep NAME TEXT: writes a file of the job. What is there is written over, not cut: the
# firmware may have filled /tmp, and the file's room is taken already.
keep() {
	printf '%s\n' "$2" 1<>"$job/$1"
}

take_room() {
	for name in $kept; do
		echo >"$job/$name" || return
	done
}

# The number of the firmware image's file: a download makes a new file.
image_file() {
	ls -i /tmp/fwupdate.bin 2>/dev/null
}

# Makes the folder of a job, with room for all that will be kept. The number of a process
# comes last: from then on the job runs.
make_job() {
	job=$1
	mkdir "$job" 2>/dev/null || return
	if take_room 2>/dev/null && keep arguments "$2" && keep started "$(date +%s)" &&
		keep image "$(image_file)" && keep pid $$; then
		return
	fi
	rm -rf "$job"
	fail "$failed" "'$job' cannot be written." "Is /tmp full?"
}

# Makes the next job, with the arguments $1. Fails when somebody else was faster.
claim_job() {
	umask 077
	mkdir "$jobs" 2>/dev/null
	find_job
	! job_runs || return
	claimed=$jobs/job.$((number + 1))
	make_job "$claimed" "$1" || return
	# The number may have been one that is long over and cleared away.
	find_job
	if [ "$job" != "$claimed" ]; then
		rm -rf "$claimed"
		return 1
	fi
	for folder in "$jobs"/job.*; do
		[ "$folder" = "$job" ] || rm -rf "$folder"
	done
}

# Starts the keeper of the claimed job. Nothing of the caller's is left in its hands that
# could end it or that it could hold up: no signal, no terminal, no pipe, no folder.
start_job() {
	keep object "$(object_id)"
	(cd / && keep_job) </dev/null >/dev/null 2>&1 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&- &
	keep pid $!
}

is_older() {
	# shellcheck disable=SC3013 # BusyBox has -ot
	[ "$(image_file)" = "$(stored image)" ] && [ /tmp/fwupdate.bin -ot "$job/started" ]
}

# Makes the call and writes down what came of it.
keep_job() {
	ubus -S -t $longest_call call fwupdate update "$(stored arguments)" \
		1<>"$job/answer.part" 2<>"$job/error" &
	caller=$!
	keep call $caller
	watch_daemon $caller &
	watcher=$!
	wait $caller
	ubus_status=$?
	kill -KILL $watcher 2>/dev/null
	end="refused $ubus_status"
	case $ubus_status in
	0) keep_answer ;;
	10 | 255) end="lost bus" ;;
	5 | 7) end="lost daemon" ;;
	137) end="lost call"
		[ -z "$(stored gone)" ] || end="lost daemon" ;;
	esac
	keep end.part "$end $(date +%s)" && mv "$job/end.part" "$job/end"
}

# An answer of 0 is also given when there was nothing to do; the image it left tells: another
# file than before, or one that is younger than the start. A clock that was set back meanwhile
# makes it look older, and a file's number may come again: both together hardly happen. An
# image of an earlier update is at least two seconds older than this one's start. An answer of
# 1 names no reason; a daemon that logs has it in its state.
keep_answer() {
	reply=$(stored answer.part)
	case $(raw_field @.error_code) in
	'') end="lost daemon"
		return ;;
	0) end="answered nothing"
		[ ! -e /tmp/fwupdate.bin ] || is_older || end="answered installing" ;;
	1) end="answered failed"
		call state '{}' $look_every && keep reason "$(field @.message)" ;;
	6) end="answered busy" ;;
	*) end="answered failed" ;;
	esac
	mv "$job/answer.part" "$job/answer"
}

# A daemon that is gone answers nobody, and the bus does not tell: the call would wait
# for weeks. Ends it ($1) when the daemon has another id than at the start, or none.
watch_daemon() {
	before=$(stored object)
	while sleep $look_every; do
		now=$(object_id)
		before=${before:-$now}
		[ "$now" != "$before" ] || continue
		# Without a bus the call has ended, or will, by itself.
		ubus list >/dev/null 2>&1 || continue
		keep gone yes
		kill -KILL "$1"
		return
	done
}

# The whole job as one JSON object; `read_outcome` has been called.
print_job() {
	if [ "$outcome" = none ]; then
		echo '{"job":"none"}'
		return
	fi
	line="{\"job\":\"$outcome\",\"started\":$started,\"arguments\":$arguments"
	case $outcome in
	answered) line="$line,\"ended\":$ended,\"result\":\"$detail\",\"answer\":$answer" ;;
	refused) line="$line,\"ended\":$ended,\"status\":$detail" ;;
	lost) line="$line${ended:+,\"ended\":$ended},\"lost\":\"$detail\"" ;;
	esac
	print_raw "$line}"
}
