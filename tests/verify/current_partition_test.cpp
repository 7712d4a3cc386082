// SPDX-License-Identifier: ISC
// The scan of /proc/mtd for the partition that holds the running firmware, whatever stands there.
#include "firmware_fixture.h"

#include <gtest/gtest.h>

#include "base/log.h"
#include "base/records.h"
#include "support/debug_fixture.h"
#include "verify/boot_partition.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr const char *header_line = "dev:    size   erasesize  name\n";
class CurrentPartition : public DebugFixture
{
protected:
	void SetUp() override
	{
		DebugFixture::SetUp();
		// Nothing but the scan is left.
		files.remove("/usr/sbin/fw_printenv");
	}

	std::string current_partition(const std::string &listing)
	{
		files.write("/proc/mtd", listing);
		update_context = {};
		EXPECT_EQ(find_boot_partition(), 1);
		return {update_context.boot_partition,
			strnlen(update_context.boot_partition, PARTITION_SIZE)};
	}
};

} // namespace

TEST_F(CurrentPartition, TakesThePartitionBeforeKernelOrUbiWhicheverComesFirst)
{
	const struct {
		std::vector<MtdPartition> listed;
		const char *found;
	} cases[] = {
		{{{"u-boot"}, {"firmware"}, {"kernel"}, {"rootfs"}}, "firmware"},
		{{{"u-boot"}, {"ubi"}, {"kernel"}}, "ubi"},
		{{{"ubi"}}, "ubi"},
		{{{"u-boot"}, {"firmware"}, {"kernel"}, {"ubi"}}, "firmware"},
		{{{"u-boot"}, {"rootfs"}, {"ubi"}}, "ubi"},
		{{{"one"}, {"kernel"}, {"two"}, {"kernel"}}, "one"},
		{{{"kernel"}, {"firmware"}}, "am"},
		{{{"kernel"}, {"ubi"}}, "am"},
		{{{"Kernel"}, {"KERNEL"}, {"kernel"}}, "KERNEL"},
		{{{"kernel2"}, {"ubi0"}, {"kernel"}}, "ubi0"},
		{{{"UBI"}, {"x"}, {"kernel"}}, "x"},
		{{{"u-boot"}, {name_of_31}, {"kernel"}}, name_of_31.c_str()},
		{{{"u-boot"}, {"firmware"}}, ""},
		{{{"kernel2"}, {"mykernel"}, {"ubifs"}}, ""},
		{{}, ""},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(mtd_listing(row.listed));
		EXPECT_EQ(current_partition(mtd_listing(row.listed)), row.found);
	}
	EXPECT_TRUE(syslog.texts().empty());
}

TEST_F(CurrentPartition, ReadsOddListings)
{
	const std::string head(header_line);
	const std::string kernel = "mtd1: 00010000 00010000 \"kernel\"\n";
	const struct {
		std::string listing;
		const char *found;
	} cases[] = {
		{"", ""},
		{"\n\n\n", ""},
		{kernel, ""},		    // nothing before it, no header either
		{head + "\n" + kernel, ""}, // an empty line has an empty name
		{head + "mtd0:\n" + kernel, ""},
		{head + "mtd0: 1\n" + kernel, ""},
		{head + "mtd0: 1 1\n" + kernel, ""},
		{head + "mtd0: 1 1 \"\"\n" + kernel, ""},
		{head + "mtd0: 1 1 x\n" + kernel, ""},
		{head + "mtd0: 1 1 \"a\"\n" + kernel, "a"},
		{head + "mtd0: 1 1 firmware\n" + kernel, "irmwar"}, // quotes are not looked at
		{head + "mtd0: 1 1 \"my part\"\n" + kernel, "m"},   // words end at blanks
		{head + "mtd0: 1 1 \"fw\" more words\n" + kernel, "fw"},
		{head + "  mtd0:\t1\t1\t\"fw\"  \n" + kernel, "fw"},
		{head + "mtd0: 1 1 \"fw\"\r\n" + kernel, "fw"},
		{head + "mtd0: 1 1 \"fw\"\nmtd1: 1 1 \"kernel\"", "fw"}, // no line feed
		{head + "mtd0: 1 1 kernel\n", ""},
		{head + "mtd0: 1 1 xkernelx\n", "am"},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.listing);
		EXPECT_EQ(current_partition(row.listing), row.found);
	}
}

TEST_F(CurrentPartition, TakesALongLineAsPiecesOf127Characters)
{
	const std::string name = "\"firmware\"";
	const std::string start = "mtd0: 1 1";
	const std::string piece = start + std::string(127 - start.size() - name.size(), ' ') + name;
	EXPECT_EQ(current_partition(piece + "a b c \"kernel\"\n"), "firmware");
	EXPECT_EQ(current_partition(piece + " " + "a b c \"kernel\"\n"), "firmware");
	// One character later the closing quote is a line of its own, without a name.
	EXPECT_EQ(current_partition(" " + piece + "\na b c \"kernel\"\n"), "");
	EXPECT_EQ(current_partition(std::string(10000, 'x') + "\na b c \"kernel\"\n"), "");
}
