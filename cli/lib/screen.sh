# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# What people see: sizes in words, colours, the progress bar. Part of fwupdate-cli.

# Sets `screen` when a line can be drawn again on standard output, and the colours.
find_screen() {
	screen='' good='' bad='' normal=''
	if [ -t 1 ] && [ "${TERM-dumb}" != dumb ]; then
		screen=1
	fi
	if [ -n "$screen" ] && [ -z "${NO_COLOR-}" ]; then
		good=$(printf '\033[32m')
		bad=$(printf '\033[31m')
		normal=$(printf '\033[0m')
	fi
}

# Columns of the terminal. A router has no stty: then COLUMNS counts, and without that the bar
# is one that fits on a narrow terminal.
find_width() {
	{ width=$(stty size 2>/dev/null <&3); } 3>&1
	width=${width#* }
	case $width in
	'' | *[!0-9]* | 0) width=${COLUMNS-} ;;
	esac
	case $width in
	'' | *[!0-9]* | 0) width=40 ;;
	esac
}

# in_words BYTES: "12.7 MiB", "300 KiB", "17 bytes".
in_words() {
	if [ "$1" -ge 1048576 ]; then
		tenths=$((($1 / 1024) * 10 / 1024))
		echo "$((tenths / 10)).$((tenths % 10)) MiB"
	elif [ "$1" -ge 1024 ]; then
		echo "$(($1 / 1024)) KiB"
	else
		echo "$1 bytes"
	fi
}

# clock SECONDS: "1:05", "2 h 20 min".
clock() {
	if [ "$1" -ge 3600 ]; then
		echo "$(($1 / 3600)) h $(($1 / 60 % 60)) min"
	else
		printf '%d:%02d\n' $(($1 / 60)) $(($1 % 60))
	fi
}

# A line that stays, in place of one that is drawn again and again.
say() {
	clear_line
	printf '%s\n' "$*"
}

drawn=
draw_line() {
	find_width
	printf '\r%-*.*s' "$((width - 1))" "$((width - 1))" "$1"
	drawn=1
}

clear_line() {
	[ -n "$drawn" ] || return 0
	draw_line ''
	printf '\r'
	drawn=
}

# draw_progress NOW TOTAL RATE: the bar gets what room the figures leave. On a narrow
# terminal figures give way first, the last ones before the percentage.
draw_progress() {
	find_width
	# Rounded so that 100 times a large file fits 32 bits.
	if [ "$2" -ge 1048576 ]; then
		percent=$((($1 / 1024) * 100 / ($2 / 1024)))
	else
		percent=$(($1 * 100 / $2))
	fi
	[ "$percent" -le 100 ] || percent=100
	tail=$(printf '%3d %%' "$percent")
	amount=$(in_words "$1")
	whole=$(in_words "$2")
	[ "${amount##* }" != "${whole##* }" ] || amount=${amount% *}
	amount="  $amount of $whole"
	[ $((width - ${#tail} - ${#amount})) -lt 16 ] || tail=$tail$amount
	if [ "$3" -gt 0 ]; then
		speed="  $(in_words "$3")/s  $(clock $((($2 - $1) / $3))) left"
		[ $((width - ${#tail} - ${#speed})) -lt 16 ] || tail=$tail$speed
	fi
	cells=$((width - ${#tail} - 4))
	if [ $cells -ge 8 ]; then
		[ $cells -le 50 ] || cells=50
		bar=$(printf '%*s' $((cells * percent / 100)) '' | tr ' ' '#')
		tail="[$(printf '%-*s' $cells "$bar" | tr ' ' .)] $tail"
	fi
	draw_line "$tail"
}
