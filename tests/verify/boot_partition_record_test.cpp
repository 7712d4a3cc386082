// SPDX-License-Identifier: ISC
// The boot partition's size, the caller's choice of it, and its recording in `bootpart`.
#include "firmware_fixture.h"

#include <gtest/gtest.h>
#include <limits>

#include "base/log.h"
#include "base/records.h"
#include "support/debug_fixture.h"
#include "verify/boot_partition.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr const char *setenv_path = "/usr/sbin/fw_setenv";
constexpr std::int32_t ubi_bytes = 0x1800000;
class PartitionSize : public RouterFixture
{
};

class BootPartitionChoice : public testing::Test
{
protected:
	BootPartitionChoice()
	{
		update_context = {};
	}
	~BootPartitionChoice() override
	{
		update_context = {};
	}

	static bool choose(const std::string &name)
	{
		return choose_boot_partition(name.c_str());
	}

	static std::string whole_field()
	{
		return {update_context.boot_partition, PARTITION_SIZE};
	}

	static std::string padded(std::string name)
	{
		name.resize(PARTITION_SIZE);
		return name;
	}
};

class BootPartitionRecord : public DebugFixture
{
protected:
	void TearDown() override
	{
		EXPECT_TRUE(syslog.texts().empty()) << "the caller logs, not the recording";
		DebugFixture::TearDown();
	}
};

} // namespace

TEST_F(PartitionSize, IsTheSizeWordOfThatPartition)
{
	files.set_mtd({{"u-boot", 0x80000, 1},
		       {"firmware", 0x01000000, 2},
		       {name_of_31, 0xe80000, 3},
		       {"firmware2", 0x42, 4},
		       {"firmware", 0x5555, 5}});
	const struct {
		std::string name;
		std::int32_t size;
	} cases[] = {
		{"u-boot", 0x80000},
		{"firmware", 16777216},
		{name_of_31, 0xe80000},
		{"firmware2", 0x42},
		{"Firmware", 0},
		{"firm", 0},
		{"firmware3", 0},
		{"\"firmware\"", 0},
		{"mtd1:", 0},
		{"00080000", 0},
		{name_of_31 + "5", 0},
		{name_of_31.substr(0, 30), 0},
		{"", 0},
		{"name", 0},
		{"am", 0},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.name);
		EXPECT_EQ(get_partition_size(row.name.c_str()), row.size);
	}
}

TEST_F(PartitionSize, IsReadAsAHexadecimalNumberOf32Bits)
{
	using Limits = std::numeric_limits<std::int32_t>;
	const struct {
		std::string word;
		std::int32_t size;
	} cases[] = {
		{"01000000", 16777216},
		{"1", 1},
		{"00E80000", 0xe80000},
		{"0x10", 16},
		{"7fffffff", 2147483647},
		{"80000000", 2147483647},
		{"ffffffff", 2147483647},
		{"ffffffffffffffffffff", 2147483647},
		{"-1", -1},
		{"-80000001", Limits::min()},
		{"10zz", 16},
		{"zz", 0},
		{std::string(29, '0') + "10", 16},
		{"0", 0},
		{"\"10\"", 0},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.word);
		files.write("/proc/mtd", "mtd0: " + row.word + " 00000007 \"firmware\"\n");
		EXPECT_EQ(get_partition_size("firmware"), row.size);
	}
}

TEST_F(PartitionSize, OfUbiIsFixedWhateverTheListingSays)
{
	files.set_mtd({{"ubi", 0x100}, {"UBI", 0x200}, {"ubi2", 0x300}});
	EXPECT_EQ(get_partition_size("ubi"), ubi_bytes);
	EXPECT_EQ(get_partition_size("UBI"), 0x200);
	EXPECT_EQ(get_partition_size("ubi2"), 0x300);
	files.remove("/proc/mtd");
	EXPECT_EQ(get_partition_size("ubi"), 25165824);
}

TEST_F(PartitionSize, IsZeroWithoutAListing)
{
	files.write("/proc/mtd", "");
	EXPECT_EQ(get_partition_size("firmware"), 0);
	files.remove("/proc/mtd");
	EXPECT_EQ(get_partition_size("firmware"), 0);
	EXPECT_EQ(get_partition_size(""), 0);
}

TEST_F(BootPartitionChoice, TakesNamesOfOneTo31Characters)
{
	for (const std::string &name : {name_of_31, std::string("x"), std::string("firmware2"),
					std::string(" "), name_of_31.substr(1)}) {
		SCOPED_TRACE(name);
		EXPECT_TRUE(choose(name));
		EXPECT_EQ(whole_field(), padded(name));
	}
}

TEST_F(BootPartitionChoice, RefusesOtherNamesAndKeepsTheEarlierOne)
{
	ASSERT_TRUE(choose("firmware"));
	for (const std::string &name :
	     {std::string(), name_of_31 + "5", std::string(33, 'x'), std::string(5000, 'x')}) {
		SCOPED_TRACE(name.size());
		EXPECT_FALSE(choose(name));
		EXPECT_EQ(whole_field(), padded("firmware"));
	}
}

TEST_F(BootPartitionChoice, KeepsTheEarlierNameWithoutAnArgument)
{
	EXPECT_TRUE(choose_boot_partition(nullptr));
	EXPECT_EQ(whole_field(), padded(""));
	ASSERT_TRUE(choose("firmware"));
	EXPECT_TRUE(choose_boot_partition(nullptr));
	EXPECT_EQ(whole_field(), padded("firmware"));
}

TEST_F(BootPartitionRecord, RunsFwSetenvWithTheName)
{
	files.install_recording_tool(setenv_path);
	EXPECT_EQ(set_boot_partition("firmware2"), 1);
	EXPECT_EQ(set_boot_partition(name_of_31.c_str()), 1);
	using Words = std::vector<std::string>;
	EXPECT_EQ(files.tool_calls(setenv_path),
		  (std::vector<Words>{{setenv_path, "bootpart", "firmware2"},
				      {setenv_path, "bootpart", name_of_31}}));
}

TEST_F(BootPartitionRecord, FailsWithAnyExitStatusButZero)
{
	for (const int status : {1, 2, 127, 128, 255}) {
		SCOPED_TRACE(status);
		files.install_recording_tool(setenv_path, "exit " + std::to_string(status));
		EXPECT_EQ(set_boot_partition("firmware2"), 0);
		EXPECT_EQ(files.tool_calls(setenv_path).size(), 1U);
	}
}

TEST_F(BootPartitionRecord, SucceedsOnARouterWithoutFwSetenv)
{
	files.remove(setenv_path);
	EXPECT_EQ(set_boot_partition("firmware2"), 1);
}

TEST_F(BootPartitionRecord, RunsNothingThatIsNotExecutable)
{
	files.install_recording_tool(setenv_path, "exit 1");
	files.write(setenv_path, read_file(setenv_path), 0644);
	EXPECT_EQ(set_boot_partition("firmware2"), 1);
	EXPECT_TRUE(files.tool_calls(setenv_path).empty());
}
