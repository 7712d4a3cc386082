# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# What people see: texts made harmless, sizes in words, colours. Part of fwupdate-cli.

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

# Columns of the terminal. Not every BusyBox has stty; COLUMNS may be set by hand.
find_width() {
	{ width=$(stty size 2>/dev/null <&3); } 3>&1
	width=${width#* }
	case $width in
	'' | *[!0-9]* | 0) width=${COLUMNS-80} ;;
	esac
	case $width in
	'' | *[!0-9]* | 0) width=80 ;;
	esac
}

# Copies text that others wrote so that a terminal does nothing but show it: no control
# characters but the line feed, in UTF-8 or as single bytes; nothing that turns the
# direction of writing; nothing that is not UTF-8.
plain_text() {
	LC_ALL=C awk '
	BEGIN {
		for (i = 1; i < 256; i++)
			code[sprintf("%c", i)] = i
	}
	# How many bytes at `at` are one harmless character, or 0.
	function harmless(at,  c, c2, c3, n, i) {
		c = code[substr($0, at, 1)]
		if (c < 128)
			return c >= 32 && c != 127
		n = c >= 240 ? 4 : c >= 224 ? 3 : 2
		if (c < 194 || c > 244)
			return 0
		for (i = 1; i < n; i++) {
			c2 = code[substr($0, at + i, 1)] + 0
			if (c2 < 128 || c2 > 191)
				return 0
		}
		c2 = code[substr($0, at + 1, 1)]
		c3 = n > 2 ? code[substr($0, at + 2, 1)] : 0
		if (c == 194 && c2 < 160)                  # C1 controls
			return 0
		if (c == 226 && c2 == 128 && (c3 == 142 || c3 == 143 || (c3 >= 168 && c3 <= 174)))
			return 0                           # marks, line separators, embeddings
		if (c == 226 && c2 == 129 && c3 >= 166 && c3 <= 169)
			return 0                           # isolates
		return n
	}
	{
		out = ""
		for (at = 1; at <= length($0); at += n ? n : 1) {
			n = harmless(at)
			if (n)
				out = out substr($0, at, n)
			else if (substr($0, at, 1) == "\t")
				out = out " "
		}
		print out
	}'
}

# The same for one line: of several only the first.
plain_line() {
	printf '%s\n' "$1" | plain_text | head -n 1
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
