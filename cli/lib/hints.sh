# SPDX-License-Identifier: ISC
# shellcheck shell=sh disable=SC2034,SC2154 # its variables are those of the whole command
# What to do about what the daemon says. Part of fwupdate-cli.

# hint_for TEXT: advice for an error text of the daemon, or nothing.
hint_for() {
	case $1 in
	"Error on checking update avialability"*)
		echo "The update server could not be asked, or its answer was of no use. Is the Internet there? Is the address right: uci get system.@system[0].fwupdate_xml_url?" ;;
	"Error on geting update info via CURL"*)
		echo "The update server was not reached. Look at the network, the name server and the address in the text." ;;
	"Error parsing XML recived from update server"*)
		echo "What answered is no update server, or its update.xml lacks the element that is named: tell its owner. A login page of a hotspot answers like this, too." ;;
	"Error, couldn't init curl"*)
		echo "The router is short of memory. Restart it and try again." ;;
	"Error on getting firmware"*)
		echo "The firmware could not be downloaded. Try again; on a slow line with a longer --timeout." ;;
	"Unable to download firmware: timeout"*)
		echo "The download took too long. Try again with a longer --timeout." ;;
	"Unable to download firmware: empty file"*)
		echo "The server sent an empty file: tell its owner." ;;
	"Unable to download firmware: "*)
		echo "The transfer broke off or was refused. Try again later; if it stays, tell the server's owner this text." ;;
	"Error, not enough memory to load firmware!"*)
		echo "/tmp has less room than an image may need. Remove an old /tmp/fwupdate.bin and other large files there, or restart the router." ;;
	"Error, couldn't get boot partition"*)
		echo "The flash partition is not known. Name it: --partition NAME, one of those in /proc/mtd." ;;
	"Error on reading tmpfs"* | "Error, couldn't open pipe!"* | "Error, couldn't get CURL pipe"* | "Error, couldn't fork!"*)
		echo "The router is short of memory or processes. Restart it and try again." ;;
	"Error, couldn't open /tmp/"*)
		echo "The image could not be stored: is /tmp full or read-only?" ;;
	"Error, can't write to pipe fd!"*)
		echo "The attempt was given up while it was downloading. Try again with a longer --timeout." ;;
	"Error on checking firmware"*)
		echo "The image was downloaded but is damaged or made for another router; nothing was installed. 'logread' has the reason when the daemon runs with --debug." ;;
	"Can't open image"* | "Can't stat image"* | "Can't mmap image"*)
		echo "The image is not there, is empty or cannot be read." ;;
	"Bad Magic Number"*)
		echo "This is no firmware: neither a U-Boot image nor a file with metadata." ;;
	"Bad Header checksum"* | "Bad Image checksum"*)
		echo "The image is damaged. Fetch it again; if it stays, tell its maker." ;;
	"Big Image"*)
		echo "The image is larger than the flash partition." ;;
	"Bad Model"*)
		echo "The image is made for another model. Compare with: ubus call system board" ;;
	"Can't get parition name"*)
		echo "The flash partition is not known. Name it in an update: --partition NAME, one of those in /proc/mtd." ;;
	"Error on checking signature via fwtool"* | "Error checking firmware via fwtools"*)
		echo "The program fwtool could not be run. Is it installed?" ;;
	"Error on reading signature, possibly firmware is damaged"*)
		echo "The image has no metadata, or is damaged. Fetch it again." ;;
	"Error on reading model via fwtool"* | "Error on reading fw_model_name"* | "Error on reading customid"* | "Model name and Custom ID oversized!"*)
		echo "The metadata of the image does not name a model that can be used: tell its maker." ;;
	"Error on writing firmware"* | "Can't run sysupgrade"*)
		echo "The installer could not be started. Is sysupgrade there?" ;;
	"Can't set boot partition via fw_setenv"*)
		echo "The boot environment could not be written. Does fw_printenv work? Is /etc/fw_env.config right?" ;;
	"Partition in 'bootpart' is wrong"*)
		echo "The boot environment names a partition that is not in /proc/mtd. Name one: --partition NAME." ;;
	"Already updating"*)
		echo "The daemon is busy with an update. 'fwupdate-cli watch' follows it. If nothing moves for an hour: /etc/init.d/fwupdate restart" ;;
	"Failed to connect to ubus"*)
		echo "The bus is not there. Is ubusd running?" ;;
	"Error, image file not set"*)
		echo "Name the image: fwupdate-cli test FILE" ;;
	"Error on reading "*)
		echo "A fact about this router could not be read; the server may offer nothing without it. 'logread' has more when the daemon runs with --debug." ;;
	esac
}

# check_text CODE: the daemon's text for a code of `test`.
check_text() {
	case $1 in
	-2) echo "Can't open image" ;;
	-3) echo "Can't stat image" ;;
	-4) echo "Can't mmap image" ;;
	-5) echo "Bad Magic Number" ;;
	-6) echo "Bad Header checksum" ;;
	-7) echo "Bad Image checksum" ;;
	-8) echo "Big Image" ;;
	-9) echo "Bad Model" ;;
	-10) echo "Can't get parition name" ;;
	*) echo "Unknown" ;;
	esac
}
