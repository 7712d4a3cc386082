// SPDX-License-Identifier: ISC
// Finding the boot partition: the variable `bootpart`, then the scan of /proc/mtd.
#include "firmware_fixture.h"

#include <algorithm>
#include <gtest/gtest.h>

#include "base/log.h"
#include "base/records.h"
#include "support/debug_fixture.h"
#include "support/refusals.h"
#include "verify/boot_partition.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr const char *printenv_path = "/usr/sbin/fw_printenv";
constexpr const char *mtd_path = "/proc/mtd";
constexpr const char *not_read_text = "Error on reading fw_part";
constexpr const char *wrong_text = "Partition in 'bootpart' is wrong, try find current partition";

class BootPartition : public DebugFixture
{
protected:
	void SetUp() override
	{
		DebugFixture::SetUp();
		files.set_mtd({{"u-boot"}, {"firmware"}, {"kernel"}, {"rootfs"}, {"firmware2"}});
	}

	void set_bootpart(const std::string &value)
	{
		files.set_boot_environment({"baudrate=115200", "bootpart=" + value, "serial=1"});
	}

	static std::string field()
	{
		const char *start = update_context.boot_partition;
		return {start, strnlen(start, PARTITION_SIZE)};
	}

	static bool field_is_all_zero()
	{
		return std::ranges::all_of(update_context.boot_partition,
					   [](char byte) { return byte == 0; });
	}

	std::vector<std::string> logged() const
	{
		return syslog.texts();
	}
};

using Logs = std::vector<std::string>;

} // namespace

TEST_F(BootPartition, TakesThePartitionThatTheVariableNames)
{
	set_bootpart("firmware2");
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "firmware2");
	EXPECT_EQ(logged(), Logs{});
}

TEST_F(BootPartition, AcceptsAnyListedName)
{
	for (const std::string &name :
	     {std::string("u-boot"), std::string("kernel"), std::string("x"), name_of_31,
	      std::string("rootfs"), std::string("am"), std::string("ubi")}) {
		SCOPED_TRACE(name);
		files.set_mtd({{"u-boot"}, {"x"}, {"kernel"}, {name_of_31}, {"ubi"}, {"rootfs"}});
		update_context = {};
		set_bootpart(name);
		EXPECT_EQ(find_boot_partition(), 1);
		EXPECT_EQ(field(), name);
	}
	EXPECT_EQ(logged(), Logs{});
}

TEST_F(BootPartition, ReplacesAVariableThatNamesNoListedPartition)
{
	for (const char *name : {"firmware3", "Firmware2", "firmware2 ", "firmwar", "kernel2",
				 "\"firmware2\"", "mtd1:", "mtd1", "00010000", "name", "0"}) {
		SCOPED_TRACE(name);
		syslog.clear();
		update_context = {};
		set_bootpart(name);
		EXPECT_EQ(find_boot_partition(), 1);
		EXPECT_EQ(field(), "firmware");
		EXPECT_EQ(logged(), Logs{wrong_text});
	}
}

TEST_F(BootPartition, JoinsTheValuesOfAllLinesThatMentionBootpart)
{
	files.set_mtd({{"u-boot"}, {"onetwo"}, {"one"}, {"kernel"}});
	files.set_boot_environment({"bootpart=one", "bootpart_old=two"});
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "onetwo");
	EXPECT_EQ(logged(), Logs{});
}

TEST_F(BootPartition, FallsBackWhenJoinedValuesNameNoPartition)
{
	files.set_boot_environment({"bootpart=firmware2", "bootpart_old=firmware"});
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "firmware");
	EXPECT_EQ(logged(), Logs{wrong_text});
}

TEST_F(BootPartition, CountsAMentionInAnotherVariablesValue)
{
	files.set_boot_environment({"bootcmd=run bootpart", "bootpart=firmware2"});
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "firmware");
	EXPECT_EQ(logged(), Logs{wrong_text});
}

TEST_F(BootPartition, TakesTheTextBetweenTheFirstTwoEqualSigns)
{
	set_bootpart("firmware2=firmware");
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "firmware2");
}

TEST_F(BootPartition, DropsACarriageReturnBehindTheValue)
{
	set_bootpart("firmware2\r");
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "firmware2");
	EXPECT_EQ(logged(), Logs{});
}

TEST_F(BootPartition, ScansWithAMessageWhenTheVariableIsMissingOrEmpty)
{
	for (const char *setting : {"serial=1", "bootpart=", "boot_part=firmware2"}) {
		SCOPED_TRACE(setting);
		syslog.clear();
		update_context = {};
		files.set_boot_environment({setting});
		EXPECT_EQ(find_boot_partition(), 1);
		EXPECT_EQ(field(), "firmware");
		EXPECT_EQ(logged(), Logs{not_read_text});
	}
}

TEST_F(BootPartition, ScansWithAMessageWhenFwPrintenvFails)
{
	files.install_tool(printenv_path, "exit 1");
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "firmware");
	EXPECT_EQ(logged(), Logs{not_read_text});
}

TEST_F(BootPartition, ScansWithAMessageWhenFwPrintenvCannotBeStarted)
{
	set_bootpart("firmware2");
	int result = 0;
	with_pipes_refused([&] { result = find_boot_partition(); });
	EXPECT_EQ(result, 1);
	EXPECT_EQ(field(), "firmware");
	EXPECT_EQ(logged(), Logs{not_read_text});
}

TEST_F(BootPartition, TakesWhatAFailingFwPrintenvPrinted)
{
	files.install_tool(printenv_path, "echo bootpart=firmware2\nexit 1");
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "firmware2");
	EXPECT_EQ(logged(), Logs{});
}

TEST_F(BootPartition, CallsFwPrintenvOnceAndWithoutArguments)
{
	files.install_recording_tool(printenv_path, "echo bootpart=firmware2");
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(files.tool_calls(printenv_path), (std::vector<Logs>{{printenv_path}}));
}

TEST_F(BootPartition, ScansInSilenceWithoutFwPrintenv)
{
	files.remove(printenv_path);
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "firmware");
	EXPECT_EQ(logged(), Logs{});
}

TEST_F(BootPartition, ScansInSilenceWhenFwPrintenvIsNotExecutable)
{
	files.write(printenv_path, "#!/bin/sh\necho bootpart=firmware2\n", 0644);
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_EQ(field(), "firmware");
	EXPECT_EQ(logged(), Logs{});
}

TEST_F(BootPartition, SurvivesAVariableOfManyCharacters)
{
	for (const std::size_t length : {32U, 33U, 127U, 128U, 1000U}) {
		SCOPED_TRACE(length);
		update_context = {};
		set_bootpart(std::string(length, 'f'));
		EXPECT_EQ(find_boot_partition(), 1);
		EXPECT_EQ(field(), "firmware");
	}
}

TEST_F(BootPartition, FailsWithAnEmptyFieldWithoutProcMtd)
{
	files.remove(mtd_path);
	set_bootpart("firmware2");
	EXPECT_EQ(find_boot_partition(), 0);
	EXPECT_TRUE(field_is_all_zero());
	EXPECT_EQ(logged(), Logs{});
}

TEST_F(BootPartition, FailsWithoutProcMtdAndWithoutFwPrintenv)
{
	files.remove(mtd_path);
	files.remove(printenv_path);
	EXPECT_EQ(find_boot_partition(), 0);
	EXPECT_TRUE(field_is_all_zero());
	EXPECT_EQ(logged(), Logs{});
}

TEST_F(BootPartition, ForgetsTheVariableWhenNothingIsFound)
{
	files.set_mtd({{"u-boot"}, {"rootfs"}});
	set_bootpart(name_of_31);
	EXPECT_EQ(find_boot_partition(), 1);
	EXPECT_TRUE(field_is_all_zero());
	EXPECT_EQ(logged(), Logs{wrong_text});
}

TEST_F(BootPartition, LeavesNothingOpen)
{
	const auto before = open_descriptors(getpid());
	for (const char *bootpart : {"firmware2", "nowhere", ""}) {
		set_bootpart(bootpart);
		find_boot_partition();
		get_partition_size("rootfs");
		get_partition_size("nowhere");
	}
	files.set_mtd({{"u-boot"}, {"ubi"}});
	find_boot_partition();
	files.remove(mtd_path);
	find_boot_partition();
	get_partition_size("rootfs");
	EXPECT_EQ(open_descriptors(getpid()), before);
}
