// SPDX-License-Identifier: ISC
#include "verify/boot_partition.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "base/guards.h"
#include "base/log.h"
#include "base/records.h"
#include "base/shell.h"
#include "base/text.h"

namespace fwupdate
{

namespace
{

constexpr std::size_t MTD_LINE_SIZE = 128;
constexpr std::size_t BOOTPART_SIZE = 128;
constexpr std::size_t SETENV_COMMAND_SIZE = 64;
constexpr std::int32_t UBI_SIZE = 0x1800000; // 24 MiB, whatever /proc/mtd says

// One line of /proc/mtd: `mtd2: 01800000 00020000 "firmware"`, sizes hexadecimal.
// Words that a line does not have are empty. The header line counts as a line of
// its own, with the name "am" (its fourth word less two letters).
struct MtdEntry {
	char size[PARTITION_SIZE];
	char name[MTD_LINE_SIZE]; // without the quotes
};

// A reader of /proc/mtd; `opened` says whether there is one.
class MtdTable
{
public:
	MtdTable() : guard_(std::fopen("/proc/mtd", "re"))
	{
	}

	bool opened() const
	{
		return guard_.get() != nullptr;
	}

	// False at the end of the table.
	bool next(MtdEntry &entry)
	{
		char line[MTD_LINE_SIZE];
		if (!read_line(guard_.get(), line, sizeof(line))) {
			return false;
		}
		entry = {};
		char quoted[MTD_LINE_SIZE] = {};
		std::sscanf(line, "%*s %31s %*s %127s", entry.size, quoted);
		const std::size_t length = std::strlen(quoted);
		if (length > 2) {
			copy_text(entry.name, length - 1, quoted + 1);
		}
		return true;
	}

private:
	StreamGuard guard_;
};

bool same(const char *left, const char *right)
{
	return std::strcmp(left, right) == 0;
}

void set_field(const char *name)
{
	copy_text(update_context.boot_partition, sizeof(update_context.boot_partition), name);
}

void read_bootpart(char (&value)[BOOTPART_SIZE])
{
	value[0] = '\0';
	if (access("/usr/sbin/fw_printenv", X_OK) == 0) {
		run_probe(
			"/usr/sbin/fw_printenv | grep bootpart | awk -F= '{ print $2 }' | tr -d '\r\n'",
			value, sizeof(value), "Error on reading fw_part\n");
	}
}

// 1 when /proc/mtd lists the partition in the field; otherwise the field is
// emptied and the result is 0, or -1 when there is no /proc/mtd to look into.
int check_field()
{
	MtdTable table;
	MtdEntry entry;
	if (!table.opened()) {
		set_field("");
		return -1;
	}
	while (table.next(entry)) {
		if (same(entry.name, update_context.boot_partition)) {
			return 1;
		}
	}
	set_field("");
	return 0;
}

int find_current_partition()
{
	MtdTable table;
	MtdEntry entry;
	char previous[MTD_LINE_SIZE] = {};
	if (!table.opened()) {
		return 0;
	}
	while (table.next(entry)) {
		if (same(entry.name, "kernel")) {
			set_field(previous);
			return 1;
		}
		if (same(entry.name, "ubi")) {
			set_field(entry.name);
			return 1;
		}
		copy_text(previous, sizeof(previous), entry.name);
	}
	return 1;
}

} // namespace

bool choose_boot_partition(const char *name)
{
	if (name == nullptr) {
		return true;
	}
	const std::size_t length = std::strlen(name);
	if (length == 0 || length >= PARTITION_SIZE) {
		return false;
	}
	set_field(name);
	return true;
}

int find_boot_partition()
{
	char bootpart[BOOTPART_SIZE];
	read_bootpart(bootpart);
	if (bootpart[0] != '\0') {
		set_field(bootpart);
		const int listed = check_field();
		if (listed > 0) {
			return 1;
		}
		if (listed < 0) {
			return 0;
		}
		log_message("Partition in 'bootpart' is wrong, try find current partition");
	}
	return find_current_partition();
}

std::int32_t get_partition_size(const char *name)
{
	if (same(name, "ubi")) {
		return UBI_SIZE;
	}
	MtdTable table;
	MtdEntry entry;
	while (table.opened() && table.next(entry)) {
		if (same(entry.name, name)) {
			return parse_hexadecimal(entry.size);
		}
	}
	return 0;
}

int set_boot_partition(const char *name)
{
	char command[SETENV_COMMAND_SIZE] = {};
	if (access("/usr/sbin/fw_setenv", X_OK) != 0) {
		return 1;
	}
	// The longest name fits: no caller keeps more than 31 characters.
	format_text(command, sizeof(command), "/usr/sbin/fw_setenv bootpart %s", name);
	return run_command(command) == CommandResult::SUCCEEDED ? 1 : 0;
}

} // namespace fwupdate
