# SPDX-License-Identifier: ISC
# Prints every small change that the rules know for the lines read, one a line: file, line
# number, rule, the changed line; \001 stands between them. `of` says what is read: cpp, shell,
# python or page (JavaScript). Knows these only as far as this project's formatting spells
# them (blanks around binary operators, one statement a line).

BEGIN {
	separator = "\001"
	mark = of == "shell" || of == "python" ? "#" : "//"
	yes = of == "python" ? "True" : "true"
	no = of == "python" ? "False" : "false"
	if (of == "shell") {
		split("= != -eq -ne -lt -le -gt -ge", before_comparison)
		split("!= = -ne -eq -le -lt -ge -gt", after_comparison)
		split("&& || + -", before_operator)
		split("|| && - +", after_operator)
	} else if (of == "page") {
		split("=== !== <= >= < >", before_comparison)
		split("!== === < > <= >=", after_comparison)
		split("&& || + - ??", before_operator)
		split("|| && - + &&", after_operator)
	} else {
		split("== != <= >= < >", before_comparison)
		split("!= == < > <= >=", after_comparison)
		split(of == "python" ? "and or + -" : "&& || + -", before_operator)
		split(of == "python" ? "or and - +" : "|| && - +", after_operator)
	}
}

# The line with what is in quotes or in a comment blanked out, position for
# position, so that rules meet code only. Fills text_start, text_end.
function masked(line,  i, c, quote, result) {
	texts = 0
	quote = ""
	for (i = 1; i <= length(line); i++) {
		c = substr(line, i, 1)
		if (quote != "") {
			if (c == "\\") {
				result = result "__"
				i++
				continue
			}
			if (c == quote) {
				if (quote == "\"" || of != "cpp") {
					text_end[texts] = i - 1
				}
				quote = ""
				result = result c
			} else {
				result = result "_"
			}
			continue
		}
		if (substr(line, i, length(mark)) == mark && (mark == "//" || i == 1 || substr(line, i - 1, 1) ~ /[ \t]/)) {
			return result
		}
		if (c == "\"" || (of != "cpp" && c == "'")) {
			text_start[++texts] = i + 1
			text_end[texts] = i
		}
		# A quote between digits separates thousands.
		if (c == "\"" || (c == "'" && substr(line, i - 1, 1) !~ /[0-9]/)) {
			quote = c
		}
		result = result c
	}
	return result
}

function emit(rule, position, size, replacement) {
	print FILENAME separator FNR separator rule separator \
		substr($0, 1, position - 1) replacement substr($0, position + size)
}

function change_operators(rule, before, after,  i, at, from, word) {
	for (i = 1; i in before; i++) {
		word = " " before[i] " "
		from = 1
		while ((at = index(substr(code, from), word)) > 0) {
			emit(rule, from + at - 1, length(word), " " after[i] " ")
			from += at
		}
	}
}

function change_words(rule, word, other,  at, from) {
	from = 1
	while ((at = index(substr(code, from), word)) > 0) {
		at += from - 1
		if (substr(code, at - 1, 1) !~ /[A-Za-z0-9_]/ &&
		    substr(code, at + length(word), 1) !~ /[A-Za-z0-9_]/) {
			emit(rule, at, length(word), other)
		}
		from = at + 1
	}
}

function change_numbers(  from, at, number, other) {
	from = 1
	while (match(substr(code, from), /0x[0-9a-fA-F]+|[0-9]+/)) {
		at = from + RSTART - 1
		number = substr(code, at, RLENGTH)
		from = at + RLENGTH
		if (substr(code, at - 1, 1) ~ /[A-Za-z0-9_.']/) {
			continue
		}
		# Adding stays in the source: awk's numbers are too small for some.
		other = number ~ /^[0-9]$/ ? number + 1 : (of == "shell" ? "$(" : "") "(" number " + 1)" (of == "shell" ? ")" : "")
		emit("number", at, length(number), other)
	}
}

# Replaces one letter of a text; not one that belongs to a conversion or an escape.
function change_texts(  i, at, letter) {
	for (i = 1; i <= texts; i++) {
		for (at = text_start[i]; at <= text_end[i]; at++) {
			letter = substr($0, at, 1)
			if (letter ~ /[A-Za-z0-9]/ && substr($0, at - 1, 1) !~ /[%\\.0-9${(a-z_]/) {
				emit("text", at, 1, letter == "Q" ? "q" : "Q")
				break
			}
		}
	}
}

function negate_condition(  open) {
	if (of == "shell" || of == "python") {
		negate_script()
		return
	}
	if (code !~ /^[ \t]*(} else )?(if|while) \(.*\) \{$/ || code ~ /if \(!?[a-z_]+ = /) {
		return
	}
	open = index(code, "(")
	print FILENAME separator FNR separator "negation" separator \
		substr($0, 1, open) "!(" substr($0, open + 1, length(code) - open - 3) ")) {"
}

# `if [ ... ]; then` and `while ...; do`; `if ...:`.
function negate_script(  head, tail) {
	if (!match(code, /^[ \t]*(if|elif|while) /)) {
		return
	}
	head = RLENGTH
	tail = of == "python" ? (code ~ /:$/ ? 1 : 0) : (match(code, /; (then|do)$/) ? RLENGTH : 0)
	if (tail > 0) {
		print FILENAME separator FNR separator "negation" separator substr($0, 1, head) \
			(of == "python" ? "not (" : "! { ") substr($0, head + 1, length(code) - head - tail) \
			(of == "python" ? ")" : "; }") substr(code, length(code) - tail + 1)
	}
}

# What does nothing in the place of a call, an assignment, a return of one line.
function drop_from_script() {
	if (previous_ended && code ~ /^[ \t]+([a-z_.]+\(.*\)|[a-z_]+=[^ ]*|[a-z_.]+ = .*[^\\({\[,]|[a-z_]+( [^&|{(]*)?[^\\&|{(:;])$/ &&
	    code !~ /^[ \t]+(if|then|else|elif|fi|do|done|for|while|case|esac|in|local|def|class|try|finally|except|import|from|with|yield)([ \t]|$)/) {
		match($0, /^[ \t]*/)
		print FILENAME separator FNR separator "statement" separator substr($0, 1, RLENGTH) (of == "python" ? "pass" : ":")
	}
}

# A whole statement of one line: the line before must have ended one.
function drop_statement() {
	if (of == "shell" || of == "python") {
		drop_from_script()
		return
	}
	if (!previous_ended || code !~ /;$/ || code ~ /^[ \t]*(using|typedef|extern|static_assert)/) {
		return
	}
	if (code ~ /^[ \t]+[A-Za-z_:>.()-]+(\[[^\]]*\])?( [-+|&]?= |\()/ || code ~ /(break|continue|\+\+|--);$/ ||
	    code ~ /^[ \t]+return;$/) {
		match($0, /^[ \t]*/)
		print FILENAME separator FNR separator "statement" separator substr($0, 1, RLENGTH) ";"
	}
}

FNR == 1 { previous_ended = 0 }
/^[ \t]*(\/\/.*)?$/ || /^[ \t]*#/ || /^[ \t]*\*/ { next }
{
	code = masked($0)
	sub(/[ \t]+$/, "", code)
	if (code !~ /^[ \t{}();,]*$/) {
		change_operators("comparison", before_comparison, after_comparison)
		change_operators("operator", before_operator, after_operator)
		change_words("truth", yes, no)
		change_words("truth", no, yes)
		change_numbers()
		change_texts()
		negate_condition()
		drop_statement()
	}
	previous_ended = of == "shell" || of == "python" ? code !~ /[\\,({\[|&]$/ : code ~ /[;{}:]$/
}
