# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# Tries what the daemon needs of the router that this runs on, and changes nothing. Part of
# fwupdate-cli; docs/requirements.md names the same things in the same order.

# finding NAME yes|no|unknown FOUND [MEANING ADVICE]
finding() {
	plain_line "$3"
	found=${text:-nothing}
	[ "$2" = yes ] && set -- "$1" yes "$found" '' ''
	[ "$2" != no ] || faults=yes
	if [ -n "$json" ]; then
		add_finding "$1" "$2" "$found" "${4-}" "${5-}"
		return
	fi
	case $2 in
	yes) say "${good}ok${normal}     $1: $found" ;;
	no) say "${bad}fault${normal}  $1: $found" ;;
	*) say "note   $1: $found" ;;
	esac
	[ "$2" = yes ] || printf '       %s\n' "$4" "$5"
}

add_finding() {
	case $2 in
	yes) ok=true ;;
	no) ok=false ;;
	*) ok=null ;;
	esac
	json_string "$3"
	found=$text
	json_string "$4"
	meaning=$text
	json_string "$5"
	findings="$findings${findings:+,}{\"check\":\"$1\",\"ok\":$ok,\"found\":$found,\"means\":$meaning,\"do\":$text}"
}

# What is asked of the bus once: `state`, the facts about the board and the WAN interface.
examine_bus() {
	if ubus list >/dev/null 2>&1; then
		finding bus yes "ubus answers"
	else
		finding bus no "ubus does not answer" "No program on this router can reach the daemon." \
			"See that ubusd runs."
	fi
	ubus -t "$state_limit" call fwupdate state >/dev/null 2>&1
	case $? in
	0) finding daemon yes "it answers" ;;
	7) find_hanging_fwtool
		if [ -n "$hanging" ]; then
			finding daemon no "fwtool (process $hanging) does not come to an end with an image" \
				"The daemon waits for it and answers nobody." "kill $hanging"
		else
			finding daemon unknown "it did not answer within $state_limit seconds" \
				"It is busy with the network or an image." "Try again in a minute."
		fi ;;
	*) finding daemon no "it is not on the bus" "Nobody looks for updates." "/etc/init.d/fwupdate restart" ;;
	esac
}

examine_tools() {
	said=$(printf '{"a":"b"}' | jsonfilter -e @.a 2>/dev/null)
	if [ "$said" = b ]; then
		finding jsonfilter yes "it reads standard input"
	else
		finding jsonfilter no "it does not read standard input" \
			"The daemon learns nothing about this router: it sends empty facts and refuses images that name a model." \
			"Install another release of jsonfilter."
	fi
	missing=
	for tool in awk df grep ifconfig ip pidof tr uci /usr/bin/fwtool sysupgrade; do
		command -v "$tool" >/dev/null || missing="$missing $tool"
	done
	if [ -z "$missing" ]; then
		finding tools yes "all are there"
	else
		finding tools no "missing:$missing" \
			"What the daemon does with them fails. Without fwtool images with metadata are refused; without sysupgrade none is installed." \
			"Install the packages that bring them."
	fi
}

# need NAME VALUE MEANING ADVICE: any value will do.
need() {
	if [ -n "$2" ]; then
		finding "$1" yes "$2"
	else
		finding "$1" no '' "$3" "$4"
	fi
}

examine_board() {
	board=$(ubus -S call system board 2>/dev/null)
	read_fields "$board" product=@.product_name model=@.board_name 'revision=@["release"]["revision"]' \
		'build=@["release"]["builddate"]'
	need product_name "$product" "Every image that names a model is refused: Bad Model." \
		"The firmware's maker has to add product_name to what 'ubus call system board' says."
	need board_name "$model" "The server is not told which router asks." "See 'ubus call system board'."
	need revision "$revision" "The server is not told which firmware runs here." "See 'ubus call system board'."
	case $build in
	'' | *[!0-9]*) finding builddate no "$build" \
		"It counts as 0: every offer is newer, also the one that runs already." \
		"The firmware's maker has to add release.builddate to what 'ubus call system board' says." ;;
	??????????*) finding builddate no "$build" \
		"It has more than nine digits, and of the server's build only nine count: no offer is ever newer." \
		"The firmware's maker has to count in units that need nine digits." ;;
	*) finding builddate yes "$build" ;;
	esac
}

examine_network() {
	wan=$(ubus -S call network.interface.wan status 2>/dev/null)
	read_fields "$wan" device=@.device
	need wan "$device" "The server is not told this router's MAC address." \
		"Name the interface to the Internet 'wan' in /etc/config/network."
	mac=
	[ -z "$device" ] || mac=$(ifconfig "$device" 2>/dev/null | awk '/HWaddr/ { print $5 }')
	need mac "$mac" "The server is not told this router's MAC address." \
		"ifconfig has to be BusyBox's, which says HWaddr."
	out=$(ip route show default 2>/dev/null | awk '/default/ { print $5; exit }')
	address=
	[ -z "$out" ] || address=$(ifconfig "$out" 2>/dev/null | awk '/inet addr:/ { sub("addr:", "", $2); print $2 }')
	need address "$address" "There is no way to the Internet, or the server is not told this router's address." \
		"See 'ip route show default' and 'ifconfig'."
	serial=$(qor_factory r sn 2>/dev/null)
	if [ -n "$serial" ]; then
		finding serial yes "$serial"
	else
		finding serial unknown '' "The server is not told a serial number; it can offer nothing to single routers." \
			"The tool 'qor_factory r sn' has to print it."
	fi
}

examine_flash() {
	read_partitions
	find_current_partition
	size=
	if [ -n "$current" ] && find_partition "$current"; then
		size=$((bytes / 1024))
		finding partition yes "$current, $size KiB"
	else
		finding partition no "$current" "Neither the boot environment nor /proc/mtd names the partition that is written." \
			"Name one in each update: --partition NAME."
	fi
	room=$(df /tmp 2>/dev/null | awk '/tmpfs/ { print $4; exit }')
	if ! is_number "$room"; then
		finding tmp no '' "Without a tmpfs on /tmp no download begins." "Mount one there."
	elif [ "$room" -lt "${size:-0}" ]; then
		finding tmp no "$room KiB free" "A download begins only with as much room as the partition has: $size KiB." \
			"Remove large files from /tmp, or restart the router."
	else
		finding tmp yes "$room KiB free"
	fi
}

examine_boot() {
	if [ ! -x /usr/sbin/fw_printenv ] || [ ! -x /usr/sbin/fw_setenv ]; then
		finding bootenv no "/usr/sbin/fw_printenv or /usr/sbin/fw_setenv is not there" \
			"The partition to boot from is not recorded." "Install uboot-envtools."
		return
	fi
	said=$(fw_printenv 2>&1 >/dev/null)
	if fw_printenv >/dev/null 2>&1; then
		finding bootenv yes "it can be read"
	else
		finding bootenv no "$said" "The partition to boot from is not recorded." "See /etc/fw_env.config."
	fi
	copies=$(grep -c '^[^#]' /etc/fw_env.config 2>/dev/null)
	if [ "${copies:-0}" -ge 2 ]; then
		finding bootenv_copies yes "$copies"
	else
		finding bootenv_copies unknown "${copies:-0}" \
			"A power cut while the boot environment is written can spoil it: the router may not boot." \
			"Use a boot loader that keeps two copies, and name both in /etc/fw_env.config."
	fi
}

# Certificates are good from one day to another.
examine_clock() {
	year=$(date +%Y)
	if [ "$year" -ge 2026 ]; then
		finding clock yes "$(date)"
	else
		finding clock no "$(date)" "Certificates are not good yet: a server with https is refused." \
			"Set the clock: see that ntpd reaches its servers."
	fi
}

# get URL [OPTION]: a little more than a manifest may have.
get() {
	uclient-fetch -q -T 10 ${2+"$2"} -O - "$1" 2>/dev/null | head -c 1100
}

# Asks what the daemon would ask; it has an address of its own where none is configured.
examine_server() {
	url=$(uci -q get 'system.@system[0].fwupdate_xml_url')
	[ -n "$url" ] || url=$(strings /usr/sbin/fwupdate 2>/dev/null | grep '^https*://' | head -n 1)
	# shellcheck disable=SC2018,SC2019 # a router's tr knows no classes
	model=$(printf %s "$model" | tr a-z A-Z)
	request="$url?fw=$build&version=$revision&mac=$mac&ip=$address&model=$model&sn=$serial&customid=&os=VOLKRAN"
	if [ -z "$url" ] || ! command -v uclient-fetch >/dev/null; then
		finding manifest unknown "${url:-no address}" "Whether the server answers was not tried: it takes uclient-fetch." \
			"fwupdate-cli check"
		return
	fi
	manifest=$(get "$request")
	case $manifest in
	*'<buildtime>'*'<url>'* | *'<url>'*'<buildtime>'*) examine_length ;;
	'') examine_silence ;;
	*) finding manifest no "$url answers something else" "What answers is no update server, or this router is not known there." \
		"Look at the address in 'uci get system.@system[0].fwupdate_xml_url', and at what the server says." ;;
	esac
}

examine_length() {
	if [ ${#manifest} -le 1024 ]; then
		finding manifest yes "$url: ${#manifest} bytes"
	else
		finding manifest no "$url: more than 1024 bytes" "The daemon reads 1024 bytes at most: every check fails." \
			"Tell the server's owner."
	fi
}

examine_silence() {
	case $url in
	https:*) [ -z "$(get "$request" --no-check-certificate)" ] || {
		finding manifest no "$url: its certificate is not trusted" \
			"Every check fails. The clock may be wrong, the certificate old, or its signer unknown here." \
			"Set the clock, install ca-bundle, or tell the server's owner."
		return
	} ;;
	esac
	finding manifest no "$url does not answer" "Every check fails." \
		"Look at the network, the name server and the address."
}

run_doctor() {
	faults='' findings=''
	examine_bus
	examine_tools
	examine_board
	examine_network
	examine_flash
	examine_boot
	examine_clock
	examine_server
	[ -z "$json" ] || print_raw "{\"findings\":[$findings]}"
	[ -z "$faults" ] || exit "$failed"
}
