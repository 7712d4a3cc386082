// SPDX-License-Identifier: ISC
// Every text of the daemon, byte for byte: what it logs, answers, runs, opens and looks for. Others
// depend on them as they stand, misspellings included, so a text is changed here first, on purpose.
// Used by texts_test.cpp, which holds the program and the source to this table. Not here: the
// built-in manifest URL, which the build sets.
#pragma once

#include <string_view>

namespace router_test
{

// Where a text must stand whole.
enum class Whole {
	in_program, // in the constants of the program, a zero byte behind it; and in the source
	// In the source only: needed by nothing but the unpacking of archives, which nothing in
	// the daemon calls, so that the linker leaves it out of the program.
	for_unpacking,
	// In the source only: so short that the compiler may make a number of it, and that a
	// program holds it by chance.
	too_short
};

struct Text {
	// message: a log line or its format; ends in "\n" only where written so
	// error: what an answer carries as error_message, or the log with a code
	// state: a value of the answer field "state"
	// bus: a name of the object, a method, an argument, an event, a field, or a field's value
	// manifest: an element of the update manifest, or its request
	// command: what the shell is given, or its format
	// path: a file of the router, or its format
	// word: what is looked for in the words of callers, servers and tools
	// format: a format or mode for the C library
	std::string_view kind;
	std::string_view text;
	std::string_view use; // where, in words
	Whole whole = Whole::in_program;
};

inline constexpr Text texts[] = {
	// Start-up
	{"word", "--debug", "the one switch of the command line"},
	{"command", "pidof %s", "instance check"},
	{"message", "Error on reading pidof_fwupdate\n", "instance check"},
	{"message", "Error on checking pids for '%s'\n", "instance check"},
	{"message", "Service already running\n", "instance check"},
	{"word", " ", "between process ids", Whole::too_short},
	{"message", "Failed to connect to ubus\n", "start-up"},
	{"message", "Failed to add object: %s\n", "start-up, on standard error"},
	{"format", "%s", "syslog, failure texts, name of an archive's member", Whole::too_short},
	{"format", "r", "output of commands", Whole::too_short},

	// The bus
	{"bus", "fwupdate", "the object, its type, and the log's ident"},
	{"bus", "check", "method"},
	{"bus", "update", "method"},
	{"bus", "test", "method"},
	{"bus", "state", "method, and a field of its answer"},
	{"bus", "force", "argument of update, field of check"},
	{"bus", "partition", "argument of update and test"},
	{"bus", "timeout", "argument of update"},
	{"bus", "attempts", "argument of update"},
	{"bus", "delay", "argument of update"},
	{"bus", "file", "argument of test"},
	{"bus", "fwupdate.avaliable", "event after every check"},

	// Answers: version and buildtime are elements of the manifest too
	{"bus", "version", "update, check; manifest element"},
	{"bus", "buildtime", "update, check; manifest element"},
	{"bus", "force_update", "update; manifest element"},
	{"bus", "releasenotes", "check"},
	{"bus", "need_update", "check"},
	{"bus", "error_code", "update, check, test"},
	{"bus", "error_message", "update, check, test"},
	{"bus", "check_code", "test"},
	{"bus", "check_message", "test"},
	{"bus", "message", "state"},
	{"bus", "progress", "state, a table"},
	{"bus", "total", "state, in progress"},
	{"bus", "now", "state, in progress"},
	{"bus", "0", "update, force_update", Whole::too_short},
	{"bus", "1", "update, force_update; set flags of the manifest", Whole::too_short},
	{"bus", "", "check after a failure; the custom ID", Whole::too_short},
	{"format", "%d", "numbers in answers", Whole::too_short},

	// Errors of the update
	{"error", "No Error", "code 0, and check_message always"},
	{"error", "Error on checking update avialability", "code 1"},
	{"error", "Error on getting firmware", "code 2"},
	{"error", "Error on checking firmware", "code 3"},
	{"error", "Error, image file not set", "code 4, test only"},
	{"error", "Error on writing firmware", "code 5"},
	{"error", "Already updating", "code 6"},

	// Errors of the image check
	{"error", "Can't get parition name", "code -10"},
	{"error", "Bad Model", "code -9"},
	{"error", "Big Image", "code -8"},
	{"error", "Bad Image checksum", "code -7"},
	{"error", "Bad Header checksum", "code -6"},
	{"error", "Bad Magic Number", "code -5"},
	{"error", "Can't mmap image", "code -4"},
	{"error", "Can't stat image", "code -3"},
	{"error", "Can't open image", "code -2"},
	{"error", "Unknown", "any other code"},

	// States
	{"state", "NONE", "0"},
	{"state", "NETWORK_GET", "1"},
	{"state", "NETWORK_CHECK", "2"},
	{"state", "XML_CONNECT", "3"},
	{"state", "XML_GET", "4"},
	{"state", "XML_PARSE", "5"},
	{"state", "XML_DONE", "6"},
	{"state", "FIRMWARE_CONNECT", "7"},
	{"state", "FIRMWARE_GET", "8"},
	{"state", "WAIT_DELAY", "9"},
	{"state", "FIRMWARE_CHECK", "10"},
	{"state", "FIRMWARE_UPDATE", "11"},
	{"state", "UNKNOWN", "any other"},

	// The update job
	{"message", "Unable to download firmware: timeout\n", "an attempt's time is over"},
	{"message", "%s [%d]", "image check: text and code"},
	{"message", "Can't set boot partition via fw_setenv", "a good image"},
	{"message", "Can't run sysupgrade", "hand-over"},
	{"command", "sleep 2; sysupgrade -F /tmp/fwupdate.bin > /dev/null 2>&1 &", "hand-over"},

	// Device facts
	{"command", "qor_factory r sn", "serial number"},
	{"command",
	 "ubus call system board | jsonfilter -e '@[\"release\"][\"revision\"]' | tr -d '\r\n'",
	 "firmware revision"},
	{"command",
	 "ubus call system board | jsonfilter -e '@[\"release\"][\"builddate\"]' | tr -d '\r\n'",
	 "build date"},
	{"command",
	 "ubus call network.interface.wan status | jsonfilter -e '@.device' | tr -d '\r\n'",
	 "WAN device"},
	{"command", "ip route show default | awk '/default/ {print $5}' | tr -d '\r\n'",
	 "WAN interface"},
	{"command", "ifconfig %s | grep HWaddr | awk ' { print $5 } ' | tr -d '\r\n'",
	 "MAC address"},
	{"command",
	 "ifconfig %s | awk '/inet addr:/ { sub(\"addr:\", \"\", $2); print $2 }' | tr -d '\r\n'",
	 "IP address"},
	{"command", "uci -q get system.@system[0].fwupdate_xml_url", "manifest URL"},
	{"command", "ubus call system board | jsonfilter -e '@[\"board_name\"]' | tr -d '\r\n'",
	 "board name"},
	{"command", "ubus call system board | jsonfilter -e '@[\"product_name\"]' | tr -d '\r\n'",
	 "product name"},
	{"message", "Error on reading cpe_sn\n", "serial number"},
	{"message", "Error on reading cpe_version\n", "firmware revision"},
	{"message", "Error on reading cpe_builddate\n", "build date"},
	{"message", "Error on reading cpe_wan_device\n", "WAN device"},
	{"message", "Error on reading cpe_wan_if\n", "WAN interface"},
	{"message", "Error on reading cpe_wan_mac\n", "MAC address"},
	{"message", "Error on reading cpe_wan_ip\n", "IP address"},
	{"message", "Error on reading cpe_update_xml_url\n", "manifest URL"},
	{"message", "Error on reading cpe_model\n", "board name"},
	{"message", "Error on reading cpe_product_name\n", "product name"},

	// The manifest: version, buildtime and force_update stand above
	{"manifest", "%s?fw=%s&version=%s&mac=%s&ip=%s&model=%s&sn=%s&customid=%s&os=%s",
	 "request"},
	{"manifest", "VOLKRAN", "request, os"},
	{"manifest", "url", "element"},
	{"manifest", "release_notes", "element"},
	{"manifest", "archive", "element"},
	{"manifest", "file_name", "element"},
	{"message", "Error, couldn't init curl\n", "query and download"},
	{"message", "Error on geting update info via CURL [%s] (url = '%s')\n", "query"},
	{"message", "Error parsing XML recived from update server, can't find '%s' section\n",
	 "query"},
	{"message", "Error parsing XML recived from update server, can't get '%s' value\n",
	 "query"},

	// The download
	{"path", "/tmp/fwupdate.bin", "the firmware"},
	{"path", "/tmp/fwupdate.zip", "the firmware in an archive"},
	{"command", "df /tmp | grep tmpfs | awk '{ printf \"%d\",int($4*1024) }'", "free space"},
	{"command", "sync && echo 3 > /proc/sys/vm/drop_caches", "memory"},
	{"command", "echo 1024 > /proc/sys/vm/min_free_kbytes", "memory"},
	{"command", "echo 1 > /proc/sys/vm/panic_on_oom", "memory"},
	{"message", "Error on reading tmpfs\n", "start"},
	{"message", "Error, couldn't get boot partition\n", "start"},
	{"message", "Error, not enough memory to load firmware!\n", "start"},
	{"message", "Error, couldn't open pipe!\n", "start"},
	{"message", "Error, couldn't get CURL pipe\n", "start"},
	{"message", "Error, couldn't fork!\n", "start"},
	{"message", "Error, couldn't open %s\n", "worker"},
	{"message", "Unable to download firmware: empty file\n", "worker"},
	{"message", "Unable to download firmware: %s\n", "worker"},
	{"message", "Error, can't write to pipe fd!\n", "worker"},
	{"format", "wb", "worker and unpacking", Whole::too_short},

	// The unpacking of archives
	{"message", "Error on removing %s\n", "the archive stays", Whole::for_unpacking},
	{"message", "Error while save unpacked firmware\n", "no image", Whole::for_unpacking},

	// The image check
	{"path", "%s.signature", "metadata beside the image"},
	{"command", "/usr/bin/fwtool -i %s.signature %s", "metadata"},
	{"command", "jsonfilter -i %s.signature -e '@.version.customid' | tr -d '\" \r\n'",
	 "custom ID"},
	{"command", "jsonfilter -i %s.signature -e '@[\"supported_devices\"]' | tr -d '\"[] \r\n'",
	 "model"},
	{"message", "Error on checking signature via fwtool\n", "uImage route"},
	{"message", "Error on reading signature, possibly firmware is damaged\n", "uImage route"},
	{"message", "Error checking firmware via fwtools: \"%s\"\n", "metadata route"},
	{"message", "Error on reading customid\n", "metadata route"},
	{"message", "Error on reading fw_model_name\n", "metadata route"},
	{"message", "Error on reading model via fwtool\n", "metadata route"},
	{"message", "Model name and Custom ID oversized! (%s[%s])\n", "metadata route"},
	{"format", "[%s]", "custom ID behind the model"},

	// The boot partition
	{"path", "/proc/mtd", "flash layout"},
	{"path", "/usr/sbin/fw_printenv", "is it there"},
	{"path", "/usr/sbin/fw_setenv", "is it there"},
	{"command", "/usr/sbin/fw_printenv | grep bootpart | awk -F= '{ print $2 }' | tr -d '\r\n'",
	 "bootpart"},
	{"command", "/usr/sbin/fw_setenv bootpart %s", "bootpart"},
	{"word", "kernel", "the partition behind the current one"},
	{"word", "ubi", "the partition of fixed size", Whole::too_short},
	{"message", "Error on reading fw_part\n", "bootpart"},
	{"message", "Partition in 'bootpart' is wrong, try find current partition", "bootpart"},
	{"format", "re", "/proc/mtd", Whole::too_short},
	{"format", "%*s %31s %*s %127s", "a line of /proc/mtd"},
};

} // namespace router_test
