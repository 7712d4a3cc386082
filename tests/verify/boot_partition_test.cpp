// SPDX-License-Identifier: ISC
// Finding the boot partition: the variable `bootpart`, then the scan of /proc/mtd.
#include "firmware_fixture.h"

#include <gtest/gtest.h>

#include "support/debug_fixture.h"
#include "verify/boot_partition.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr const char *printenv_path = "/usr/sbin/fw_printenv";
constexpr const char *mtd_path = "/proc/mtd";
constexpr const char *header_line = "dev:    size   erasesize  name\n";
const std::string not_read = "Error on reading fw_part";
const std::string wrong = "Partition in 'bootpart' is wrong, try find current partition";

class BootPartition : public DebugFixture
{
protected:
	void SetUp() override
	{
		DebugFixture::SetUp();
		files.set_mtd({{"u-boot"},
			       {"onetwo"},
			       {"firmware"},
			       {"kernel"},
			       {name_of_31},
			       {"firmware2"},
			       {"am"},
			       {"ubi"}});
	}

	// The field's text; the rest of the field is zero.
	static std::string field()
	{
		const char *start = update_context.boot_partition;
		const std::string text(start, strnlen(start, PARTITION_SIZE));
		std::string whole = text;
		whole.resize(PARTITION_SIZE);
		EXPECT_EQ(std::string(start, PARTITION_SIZE), whole);
		return text;
	}

	// What was logged while the partition was found.
	std::string find(const std::string &expected)
	{
		syslog.clear();
		update_context = {};
		EXPECT_EQ(find_boot_partition(), 1);
		EXPECT_EQ(field(), expected);
		EXPECT_LE(syslog.lines().size(), 1u);
		return syslog.lines().empty() ? "" : syslog.lines()[0].text;
	}
};

// Nothing but the scan is left.
class CurrentPartition : public BootPartition
{
protected:
	void SetUp() override
	{
		BootPartition::SetUp();
		files.remove(printenv_path);
	}

	std::string current_partition(const std::string &listing)
	{
		files.write(mtd_path, listing);
		update_context = {};
		EXPECT_EQ(find_boot_partition(), 1);
		return field();
	}
};

} // namespace

TEST_F(BootPartition, IsThatOfTheVariableIfItIsListedAndElseThatOfTheScan)
{
	const struct {
		std::vector<std::string> environment;
		std::string found;
		std::string logged;
	} cases[] = {
		{{"baudrate=115200", "bootpart=firmware2", "serial=1"}, "firmware2", ""},
		{{"bootpart=u-boot"}, "u-boot", ""},
		{{"bootpart=kernel"}, "kernel", ""},
		{{"bootpart=am"}, "am", ""},
		{{"bootpart=" + name_of_31}, name_of_31, ""},
		// Between the first two equal signs; a carriage return goes.
		{{"bootpart=firmware2=firmware"}, "firmware2", ""},
		{{"bootpart=firmware2\r"}, "firmware2", ""},
		// All lines that mention it are joined.
		{{"bootpart=one", "bootpart_old=two"}, "onetwo", ""},
		{{"bootpart=firmware2", "bootpart_old=firmware"}, "firmware", wrong},
		{{"bootcmd=run bootpart", "bootpart=firmware2"}, "firmware", wrong},
		{{"bootpart=firmware3"}, "firmware", wrong},
		{{"bootpart=Firmware2"}, "firmware", wrong},
		{{"bootpart=firmware2 "}, "firmware", wrong},
		{{"bootpart=firmwar"}, "firmware", wrong},
		{{"bootpart=\"firmware2\""}, "firmware", wrong},
		{{"bootpart=mtd1:"}, "firmware", wrong},
		{{"bootpart=00010000"}, "firmware", wrong},
		{{"bootpart=" + std::string(1000, 'f')}, "firmware", wrong},
		{{"serial=1"}, "firmware", not_read},
		{{"bootpart="}, "firmware", not_read},
		{{"boot_part=firmware2"}, "firmware", not_read},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.environment[0]);
		files.set_boot_environment(row.environment);
		EXPECT_EQ(find(row.found), row.logged);
	}
}

TEST_F(BootPartition, IsThatOfTheScanWithoutFwPrintenv)
{
	files.install_tool(printenv_path, "exit 1");
	EXPECT_EQ(find("firmware"), not_read);
	files.install_tool(printenv_path, "echo bootpart=firmware2\nexit 1");
	EXPECT_EQ(find("firmware2"), "");
	// One that may not be run is none, and is not missed.
	files.write(printenv_path, "#!/bin/sh\necho bootpart=firmware2\n", 0644);
	EXPECT_EQ(find("firmware"), "");
	files.remove(printenv_path);
	EXPECT_EQ(find("firmware"), "");
}

TEST_F(BootPartition, FailsWithAnEmptyFieldWithoutProcMtd)
{
	files.remove(mtd_path);
	files.set_boot_environment({"bootpart=firmware2"});
	EXPECT_EQ(find_boot_partition(), 0);
	EXPECT_EQ(field(), "");
	files.remove(printenv_path);
	EXPECT_EQ(find_boot_partition(), 0);
	EXPECT_EQ(field(), "");
	EXPECT_TRUE(syslog.lines().empty());
}

TEST_F(BootPartition, ForgetsTheVariableWhenNothingIsFound)
{
	files.set_mtd({{"u-boot"}, {"rootfs"}});
	files.set_boot_environment({"bootpart=" + name_of_31});
	EXPECT_EQ(find(""), wrong);
}

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
