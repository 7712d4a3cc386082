# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2015 # its variables are those of the programs that read it
# What sysupgrade and trial share. docs/trust.md says what is in /tmp/fwupdate-guard.
set -u
export PATH=/usr/sbin:/usr/bin:/sbin:/bin
umask 022
place=/tmp/fwupdate-guard

say() { logger -t fwupdate-guard -p user.notice "$*"; }

# keep NAME TEXT: the file appears whole.
keep() { echo "$2" >$place/new && mv $place/new "$place/$1"; }

variable() { fw_printenv -n "$1" 2>/dev/null; }

# write NAME [VALUE]: fw_setenv may fail in silence, so it is read back.
write() {
	fw_setenv "$@" >/dev/null 2>&1
	[ "$(variable "$1")" = "${2-}" ]
}

# What is noted of a trial. `over` takes the build's place then; the rest is for a return by hand.
record() { variable fwupdate_trial | grep -v '^over '; }
call_off() { write upgrade_available 0 && write fwupdate_trial "$(variable fwupdate_trial | sed 's/[^ ]*/over/')"; }

is_partition() { grep -q " \"$1\"\$" /proc/mtd; }

# word JSON EXPRESSION: what the boot environment can hold as one word; "-" for nothing.
word() {
	found=$(jsonfilter -s "$1" -e "$2" 2>/dev/null | tr -cd 'A-Za-z0-9._+~-' | head -c 32)
	echo "${found:--}"
}

read_board() {
	board=$(ubus -S -t 30 call system board 2>/dev/null)
	running_build=$(word "$board" @.release.builddate)
	running_version=$(word "$board" @.release.revision)
}

# within_a_minute COMMAND...: its exit status; it is ended when the minute is over.
within_a_minute() {
	"$@" &
	child=$!
	(sleep 60 && kill -KILL $child) >/dev/null 2>&1 9>&- &
	wait $child
	status=$?
	kill $! 2>/dev/null
	return $status
}

# A folder of somebody else's, or a link, is not ours to use.
mkdir $place 2>/dev/null
[ -d $place ] && [ ! -L $place ] && [ -O $place ] || { say "$place cannot be used" && exit 1; }
