# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# Starting an update, and keeping its answer. Part of fwupdate-cli.
#
# An update takes minutes, and the daemon answers at its end to the one who asked. So the
# call is made by a process of its own, the keeper, and its answer is kept until the next
# update:
#
#   /tmp/fwupdate-cli/job.N/   mode 0700, root's own; N counts up, the highest is the last
#     claim                    the process of the command that made it
#     arguments                yes when forced, else no; partition, or -; timeout, attempts, delay
#     started                  seconds since 1970
#     object                   the daemon's id on the bus; a new one is another daemon
#     image                    which /tmp/fwupdate.bin was there before
#     pid, watcher, call       the keeper's process, its watcher's, and its `ubus call`
#     answer                   the daemon's answer, JSON
#     reason                   of a failed server query, when the daemon logs
#     end                      appears last; two words and the second when: "answered
#                              installing|nothing|failed|busy", "refused UBUS-STATUS",
#                              "lost bus|daemon|call"
#
# The first line of a file counts. Who gives a finished folder the name job.N+1 first has the
# next job; everybody else is told that one is running. The folder of the job before goes
# when the keeper has begun.

longest_call=2147483 # seconds; the most that the ubus command can count
look_every=5	     # seconds between two looks whether the daemon is still the same
kept="arguments started object image pid watcher call answer.part error reason gone end.part"

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

# Makes the folder of a job under a name of its own, with room for all that will be kept.
make_job() {
	job=$1
	rm -rf "$job"
	if mkdir "$job" && take_room && echo $$ >"$job/claim" && keep started "$(date +%s)" &&
		keep image "$(image_file)" &&
		keep arguments "${force:-no} ${partition:--} $timeout $attempts $delay"; then
		return
	fi 2>/dev/null
	rm -rf "$job"
	fail "$failed" "'$jobs' cannot be written." "Is /tmp full, or read-only?"
}

# Makes the next job. Fails when somebody else was faster.
claim_job() {
	umask 077
	mkdir "$jobs" 2>/dev/null
	find_job
	! job_runs || return
	claimed=$jobs/job.$((newest + 1))
	made=$jobs/new.$$
	make_job "$made"
	# Where that name is taken already, it is moved into the other's folder, or stays.
	mv "$made" "$claimed" 2>/dev/null
	if [ -d "$made" ] || [ -d "$claimed/new.$$" ]; then
		rm -rf "$made" "$claimed/new.$$"
		return 1
	fi
	# The number may have been one that is long over and cleared away.
	find_job
	[ "$job" != "$claimed" ] || return 0
	rm -rf "$claimed"
	return 1
}

# What other jobs have left; not what another command makes just now.
clear_others() {
	for folder in "$jobs"/*; do
		case $folder in
		"$job") ;;
		"$jobs"/new.*) is_alive "${folder##*.}" || rm -rf "$folder" ;;
		*) rm -rf "$folder" ;;
		esac
	done
}

# Starts the keeper of the claimed job. Nothing of the caller's is left in its hands that
# could end it or that it could hold up: no signal, no terminal, no pipe, no folder.
start_job() {
	keep object "$(object_id)"
	(cd / && keep_job) </dev/null >/dev/null 2>&1 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&- &
	keep pid $!
	clear_others
}

is_older() {
	stored image
	# shellcheck disable=SC3013 # BusyBox has -ot
	[ "$(image_file)" = "$line" ] && [ /tmp/fwupdate.bin -ot "$job/started" ]
}

# Makes the call and writes down what came of it. The daemon does not ask the server again
# while it remembers an answer, so where nobody has just asked it to, it is asked first.
keep_job() {
	read -r keeper _ </proc/self/stat
	keep pid "$keeper"
	watch_daemon &
	watcher=$!
	keep watcher $watcher
	[ -n "$asked" ] || call check '{}' "$check_limit"
	ask_guard_for_force
	read_arguments
	ubus -S -t $longest_call call fwupdate update "$arguments" \
		1<>"$job/answer.part" 2<>"$job/error" &
	caller=$!
	keep call $caller
	wait $caller
	ubus_status=$?
	end="refused $ubus_status"
	case $ubus_status in
	0) keep_answer ;;
	10 | 255) end="lost bus" ;;
	5 | 7) end="lost daemon" ;;
	137) end="lost call"
		stored gone
		[ -z "$line" ] || end="lost daemon" ;;
	esac
	[ "$end" = "answered installing" ] || withdraw_force
	keep end.part "$end $(date +%s)" && mv "$job/end.part" "$job/end"
	kill -KILL $watcher 2>/dev/null
}

# An answer of 0 is also given when there was nothing to do; the image it left tells: another
# file than before, or one that is younger than the start. A clock that was set back meanwhile
# makes it look older, and a file's number may come again: both together hardly happen. An
# image of an earlier update is at least two seconds older than this one's start. An answer of
# 1 names no reason; a daemon that logs has it in its state.
keep_answer() {
	stored answer.part
	valid "$line"
	[ "$text" = "$line" ] || keep answer.part "$text"
	read_fields "$text" code=@.error_code
	case $code in
	'') end="lost daemon"
		return ;;
	0) end="answered nothing"
		[ ! -e /tmp/fwupdate.bin ] || is_older || end="answered installing" ;;
	1) end="answered failed"
		call state '{}' $look_every && read_fields "$reply" message=@.message && keep reason "$message" ;;
	6) end="answered busy" ;;
	*) end="answered failed" ;;
	esac
	mv "$job/answer.part" "$job/answer"
}

# A daemon that is gone answers nobody, and the bus does not tell: the call would wait
# for weeks. Ends it when the daemon has another id than at the start, or none. Lives as long
# as the keeper, and leaves no call behind when that was killed.
watch_daemon() {
	stored object
	before=$line
	while sleep $look_every; do
		stored call
		caller=$line
		is_alive "$keeper" || break
		end_hanging_fwtool
		now=$(object_id)
		before=${before:-$now}
		[ "$now" != "$before" ] || continue
		# Without a bus the call has ended, or will, by itself.
		ubus list >/dev/null 2>&1 || continue
		keep gone yes
		! is_alive "$caller" || kill -KILL "$caller"
	done
	! is_alive "$caller" || kill -KILL "$caller"
}
