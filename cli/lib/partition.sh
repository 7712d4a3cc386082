# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# Which flash partition an update is for. Part of fwupdate-cli. The daemon goes on with the
# name that it was given last, whoever gave it, so every update names its own.

# Sets `partitions` to lines "NAME BYTES" in the kernel's order.
read_partitions() {
	partitions=
	[ -r /proc/mtd ] || return 0
	while read -r _ size _ name; do
		case $size:$name in
		*[!0-9A-Fa-f]*:* | :* | *:'"'*[!A-Za-z0-9._/-]*'"' | *:'""') ;;
		*:'"'*'"') name=${name#?}
			partitions="$partitions${name%?} $((0x$size))$newline" ;;
		esac
	done </proc/mtd
}

# Sets `bytes` to the size of a partition; fails when there is none of that name. One named
# "ubi" counts as 24 MiB, as for the daemon.
find_partition() {
	bytes=
	while read -r listed size; do
		[ "$listed" != "$1" ] || bytes=${bytes:-$size}
	done <<LIST
$partitions
LIST
	[ -z "$bytes" ] || [ "$1" != ubi ] || bytes=25165824
	[ -n "$bytes" ]
}

# Sets `current` to the partition that the boot environment names; when it names none, to the
# one before "kernel", or to "ubi", whichever comes first; or to nothing.
find_current_partition() {
	current=$(fw_printenv -n bootpart 2>/dev/null)
	! find_partition "$current" || return 0
	current='' before=''
	while read -r name _; do
		case $name in
		kernel) current=$before
			return ;;
		ubi) current=ubi
			return ;;
		esac
		before=$name
	done <<LIST
$partitions
LIST
}

# With the guard: sets `booted` to the partition of the firmware that runs, and `other` to that of
# the second firmware, if the router's maker has named both. A new one there has a way back.
find_other_partition() {
	booted='' other=''
	[ -x "$trial_program" ] || return 0
	{ read -r booted _ <"$guard_folder/start"; } 2>/dev/null
	# shellcheck disable=SC2046 # words
	set -- $(uci -q get fwupdate.guard.partitions)
	case $booted in
	'') ;;
	"${1-}") other=${2-} ;;
	"${2-}") other=$1 ;;
	esac
}

# Sets `partition` for an update, and checks the one that was asked for: what is smaller than
# the one that boots now holds no firmware. Where nothing can be read the daemon may try.
choose_partition() {
	read_partitions
	find_current_partition
	find_other_partition
	wanted=${partition:-${other:-$current}}
	partition=$wanted
	[ -n "$partitions" ] && [ "$wanted" != "$current" ] || return 0
	least=0
	! find_partition "$current" || least=$bytes
	fitting=
	while read -r name _; do
		if find_partition "$name" && [ "$bytes" -ge "$least" ]; then
			[ "$name" != "$wanted" ] || return 0
			fitting="$fitting $name"
		fi
	done <<LIST
$partitions
LIST
	why=
	[ -z "$current" ] || why=", which are no smaller than '$current'"
	misuse "--partition takes one of$fitting$why; not '$wanted'."
}
