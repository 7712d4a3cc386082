# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# Text that others wrote, made harmless; values out of JSON, and into it. Part of
# fwupdate-cli and fwupdate-job. Most text needs no second look, and then no process is
# started for it: on a router each takes milliseconds.

newline='
'
export LC_ALL=C # a character is a byte, for the patterns here

# Copies text and leaves out what is no UTF-8. With `all` empty also what a terminal must not
# be given: control characters but the line feed, and what is not seen or turns the
# direction of writing. web/facts.js has the same list.
# shellcheck disable=SC2016 # the dollars are awk's
plain_awk='
BEGIN {
	for (i = 1; i < 256; i++)
		code[sprintf("%c", i)] = i
}
function invisible(c) {
	return c < 32 || (c >= 127 && c < 160) || c == 1564 || c == 8203 || c == 8206 || c == 8207 ||
		(c >= 8232 && c <= 8238) || (c >= 8288 && c <= 8303) || c == 65279 ||
		(c >= 65529 && c <= 65531) || (c >= 917504 && c <= 917631)
}
# How many bytes at `at` are one character that is kept, or 0.
function kept(s, at,  c, n, i, more) {
	c = code[substr(s, at, 1)]
	n = c < 128 ? 1 : c < 194 ? 0 : c < 224 ? 2 : c < 240 ? 3 : c < 245 ? 4 : 0
	if (n > 1)
		c -= n == 2 ? 192 : n == 3 ? 224 : 240
	for (i = 1; i < n; i++) {
		more = code[substr(s, at + i, 1)] + 0
		if (more < 128 || more > 191)
			return 0
		c = c * 64 + more - 128
	}
	if ((n == 3 && c < 2048) || (n == 4 && c < 65536) || c > 1114111 || (c >= 55296 && c <= 57343))
		return 0 # longer than need be, too large, half of a pair
	return ENVIRON["all"] == "" && invisible(c) ? 0 : n
}
function cleaned(s,  at, n, out) {
	out = ""
	for (at = 1; at <= length(s); at += n ? n : 1) {
		n = kept(s, at)
		if (n)
			out = out substr(s, at, n)
		else if (substr(s, at, 1) == "\t")
			out = out " "
	}
	return out
}'
plain_lines="$plain_awk { print cleaned(\$0) }"

# plain TEXT: leaves in `text` what a terminal can be given of it.
plain() {
	text=$1
	case $1 in
	*[!\ -~"$newline"]*) text=$(printf '%s\n' "$1" | all='' awk "$plain_lines") ;;
	esac
}

# The same for the first line only.
plain_line() {
	plain "${1%%"$newline"*}"
}

# quoted VALUE: leaves in `text` a value as a message may quote it: one line, and not a long one.
quoted() {
	text=${1%%"$newline"*}
	[ ${#text} -le 60 ] || text=$(printf '%.57s...' "$text")
	plain "$text"
}

# valid TEXT: leaves in `text` what of it is UTF-8. A limit of the daemon may have cut a
# character, and a program that reads JSON may refuse the rest with it.
valid() {
	text=$1
	case $1 in
	*[!\ -~"$newline"]*) text=$(printf '%s\n' "$1" | all=1 awk "$plain_lines") ;;
	esac
}

# read_fields JSON NAME=EXPRESSION...: sets each variable to the value that is there, or to
# nothing. jsonfilter quotes the values for the shell.
read_fields() {
	source=$1
	shift
	for pair; do
		eval "${pair%%=*}="
		set -- "$@" -e "$pair"
		shift
	done
	eval "$(jsonfilter -q -s "$source" "$@" 2>/dev/null)"
}

# json_string TEXT: leaves in `text` the text as a JSON string, in one line.
json_string() {
	plain "$1"
	text=\"$(printf %s "$text" | tr '\n' ' ' | sed 's/[\\"]/\\&/g')\"
}

is_number() {
	case $1 in
	'' | *[!0-9]* | 0?* | ????????????????*) return 1 ;;
	esac
}
