// SPDX-License-Identifier: ISC
// A flash layout, a boot environment and a /tmp that are not as they should be, row by row of
// docs/reliability.md. What a test leaves behind is compared by its fixture.
#include <optional>
#include <sys/mount.h>

#include "router/update_fixture.h"
#include "support/fault_row.h"

using namespace router_test;

namespace
{

constexpr const char *wrong_bootpart =
	"Partition in 'bootpart' is wrong, try find current partition";
constexpr const char *unreadable_bootpart = "Error on reading fw_part";

const std::string mtd_head = "dev:    size   erasesize  name\n";

// One line of so many characters, the line feed not counted: the blanks are in front of the name.
std::string line_of(std::size_t length)
{
	const std::string start = "mtd0: 00100000 00010000 ";
	const std::string name = "\"firmware2\"";
	return start + std::string(length - start.size() - name.size(), ' ') + name + "\n";
}

// The partition of that name in front of the kernel.
std::string listing_of(const std::string &name)
{
	return mtd_listing({{"u-boot", 0x10000}, {name, 0x10000}, {"kernel", 0x10000}});
}

struct LayoutFault {
	const char *name;
	const char *fault;
	std::string mtd;
	std::string bootpart;
	std::string recorded;
	std::vector<std::string> logged = {};
};

void PrintTo(const LayoutFault &row, std::ostream *stream)
{
	*stream << row.fault;
}

std::string log_text(const std::vector<std::string> &lines)
{
	std::string all;
	for (const std::string &line : lines) {
		all += (all.empty() ? ", log: \"" : ", \"") + line + "\"";
	}
	return all;
}

class OddLayout : public UpdateTest, public testing::WithParamInterface<LayoutFault>
{
};

const std::string name_of_31(31, 'n');

const std::vector<LayoutFault> odd_layouts = {
	{"empty", "/proc/mtd is empty.", "", "firmware2", "", {wrong_bootpart}},
	{"header_only", "/proc/mtd lists nothing.", mtd_head, "firmware2", "", {wrong_bootpart}},
	{"without_final_line_feed", "/proc/mtd ends without a line feed.",
	 mtd_head + "mtd0: 00100000 00010000 \"firmware2\"", "firmware2", "firmware2"},
	{"line_of_126", "/proc/mtd has a line of 126 characters.", mtd_head + line_of(126),
	 "firmware2", "firmware2"},
	{"line_of_127", "/proc/mtd has a line of 127 characters.", mtd_head + line_of(127),
	 "firmware2", "firmware2"},
	{"line_of_128",
	 "/proc/mtd has a line of 128 characters.",
	 mtd_head + line_of(128),
	 "firmware2",
	 "",
	 {wrong_bootpart}},
	{"line_of_129",
	 "/proc/mtd has a line of 129 characters.",
	 mtd_head + line_of(129),
	 "firmware2",
	 "",
	 {wrong_bootpart}},
	{"name_of_31", "The partition has a name of 31 characters.", listing_of(name_of_31),
	 name_of_31, name_of_31},
	{"name_of_32",
	 "The partition has a name of 32 characters.",
	 listing_of(name_of_31 + "x"),
	 name_of_31 + "x",
	 name_of_31,
	 {wrong_bootpart}},
	{"name_of_33",
	 "The partition has a name of 33 characters.",
	 listing_of(name_of_31 + "xy"),
	 name_of_31 + "xy",
	 name_of_31,
	 {wrong_bootpart}},
	{"kernel_first",
	 "The kernel is the first partition.",
	 mtd_listing({{"kernel"}}),
	 "gone",
	 "am",
	 {wrong_bootpart}},
};

TEST_P(OddLayout, IsUpdatedAllTheSame)
{
	const LayoutFault &row = GetParam();
	const std::string recorded =
		row.recorded.empty() ? std::string("an empty name") : "\"" + row.recorded + "\"";
	record({.fault = row.fault,
		.caller = "`update`: code 0, " + recorded + " is recorded" + log_text(row.logged),
		.left = "the installed image"});
	files.write("/proc/mtd", row.mtd);
	files.set_boot_environment({"bootpart=" + row.bootpart});
	offer(answer(good_image()));
	start_daemon();
	expect_outcome(daemon().update(), {});
	EXPECT_EQ(syslog.texts(), row.logged);
	Calls calls = {{setenv_tool, "bootpart"}};
	if (!row.recorded.empty()) {
		calls[0].push_back(row.recorded);
	}
	EXPECT_EQ(files.tool_calls(setenv_tool), calls);
	expect_installed();
}

INSTANTIATE_TEST_SUITE_P(Matrix, OddLayout, testing::ValuesIn(odd_layouts), case_name);

class MissingLayout : public UpdateTest
{
};

TEST_F(MissingLayout, IsAFailedStart)
{
	record({.fault = "/proc/mtd is missing.",
		.caller = "`update`: code 2, \"Error, couldn't get boot partition\"",
		.left = "a daemon that answers further updates with code 6 until it is restarted"});
	files.remove("/proc/mtd");
	offer();
	start_daemon();
	expect_outcome(daemon().update(),
		       {.code = 2, .text = "Error, couldn't get boot partition\n"});
	expect_outcome(daemon().update(), {.code = 6, .text = already_updating});
	EXPECT_EQ(downloads(), 0u);
}

struct EnvironmentFault {
	const char *name;
	const char *fault;
	void (*make)(RouterFiles &files, const std::string &device);
	std::vector<std::string> logged;
};

void PrintTo(const EnvironmentFault &row, std::ostream *stream)
{
	*stream << row.fault;
}

constexpr const char *config = "/etc/fw_env.config";
class BadEnvironment : public UpdateTest, public testing::WithParamInterface<EnvironmentFault>
{
};

const std::vector<EnvironmentFault> bad_environments = {
	{"flipped_bit",
	 "The boot environment's checksum is wrong.",
	 [](RouterFiles &files, const std::string &device) {
		 std::string bytes = read_file(device);
		 flip_bit(bytes, 100);
		 files.write(device, bytes);
	 },
	 {unreadable_bootpart, not_recorded}},
	{"erased",
	 "The boot environment is erased flash.",
	 [](RouterFiles &files, const std::string &device) {
		 files.write(device, std::string(read_file(device).size(), '\377'));
	 },
	 {unreadable_bootpart, not_recorded}},
	{"empty_device",
	 "The boot environment's device is empty.",
	 [](RouterFiles &files, const std::string &device) { files.write(device, ""); },
	 {unreadable_bootpart, not_recorded}},
	{"no_device",
	 "The boot environment's device is missing.",
	 [](RouterFiles &files, const std::string &device) { files.remove(device); },
	 {unreadable_bootpart, not_recorded}},
	{"no_configuration",
	 "The configuration of the boot environment is missing.",
	 [](RouterFiles &files, const std::string & /*device*/) { files.remove(config); },
	 {unreadable_bootpart, not_recorded}},
	{"rubbish_as_configuration",
	 "The configuration of the boot environment is rubbish.",
	 [](RouterFiles &files, const std::string & /*device*/) {
		 files.write(config, noise(500));
	 },
	 {unreadable_bootpart, not_recorded}},
	{"no_bootpart",
	 "The boot environment has no `bootpart`.",
	 [](RouterFiles &files, const std::string & /*device*/) {
		 files.set_boot_environment({"ethaddr=02:00:00:00:00:10"});
	 },
	 {unreadable_bootpart}},
	{"bootpart_of_nothing",
	 "`bootpart` names no partition.",
	 [](RouterFiles &files, const std::string & /*device*/) {
		 files.set_boot_environment({"bootpart=gone"});
	 },
	 {wrong_bootpart}},
};

// With the real tools; the partition in front of the kernel counts instead.
TEST_P(BadEnvironment, LeavesTheUpdateAlone)
{
	const EnvironmentFault &row = GetParam();
	record({.fault = row.fault,
		.caller = "`update`: code 0" + log_text(row.logged),
		.left = "the installed image"});
	const std::string real_setenv = read_file("/host/usr/bin/fw_setenv");
	files.write(setenv_tool, real_setenv, 0755);
	const std::string environment = read_file(config);
	row.make(files, environment.substr(0, environment.find(' ')));
	offer(answer(good_image()));
	start_daemon();
	expect_outcome(daemon().update(), {});
	EXPECT_EQ(syslog.texts(), row.logged);
	expect_installed();
}

INSTANTIATE_TEST_SUITE_P(Matrix, BadEnvironment, testing::ValuesIn(bad_environments), case_name);

class BadTmp : public UpdateTest
{
protected:
	static constexpr const char *not_opened = "Error, couldn't open /tmp/fwupdate.bin";
	static constexpr const char *not_written =
		"Unable to download firmware: Failed writing received data to disk/application";

	void expect_not_opened(const Reply &reply)
	{
		expect_outcome(reply, {.code = 2, .text = download_failed});
		EXPECT_EQ(syslog.texts(), std::vector<std::string>{not_opened});
		EXPECT_EQ(downloads(), 0u);
	}

	static void record_not_opened(const std::string &fault, const std::string &left)
	{
		record({.fault = fault,
			.caller = std::string("`update`: code 2, log: \"") + not_opened + "\"",
			.left = left});
	}

	static Fields unlisted()
	{
		return {string_field("partition", "unlisted")};
	}
};

TEST_F(BadTmp, FullBeforeIsAFailedStart)
{
	record({.fault = "/tmp is full before the download.",
		.caller = "`update`: code 2, \"Error, not enough memory to load firmware!\"",
		.left = "a daemon that answers further updates with code 6 until it is restarted"});
	files.fill_tmp(0);
	offer();
	start_daemon();
	expect_outcome(daemon().update({string_field("partition", "firmware")}),
		       {.code = 2, .text = "Error, not enough memory to load firmware!\n"});
	expect_outcome(daemon().update(), {.code = 6, .text = already_updating});
	EXPECT_EQ(downloads(), 0u);
}

TEST_F(BadTmp, FullBeforeIsAFailedDownloadForAPartitionOfUnknownSize)
{
	record({.fault = "/tmp is full before the download, and the partition's size is unknown.",
		.caller = std::string("`update`: code 2, log: \"") + not_written + "\""});
	offer(answer(good_image(0x40000)));
	files.fill_tmp(0);
	start_daemon();
	expect_outcome(daemon().update(unlisted()), {.code = 2, .text = download_failed});
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{not_written});
	expect_not_installed();
}

TEST_F(BadTmp, FullInTheMiddleIsAFailedDownload)
{
	record({.fault = "/tmp becomes full in the middle of the download.",
		.caller = std::string("`update`: code 2, log: \"") + not_written + "\""});
	offer(answer(good_image(0x80000)).cut_at({0x40000}).hold());
	start_daemon();
	PendingCall pending = daemon().start_update();
	server.release();
	ASSERT_TRUE(server.wait_for_pieces(firmware, 1));
	files.fill_tmp(0);
	server.release_all();
	expect_outcome(pending.wait(), {.code = 2, .text = download_failed});
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{not_written});
	expect_not_installed();
}

TEST_F(BadTmp, RoomThatIsBackIsUsedByTheNextAttempt)
{
	record({.fault = "/tmp becomes full in the middle of the first of two attempts.",
		.caller = "`update`: code 0",
		.left = "the installed image"});
	const std::string image = good_image(0x80000);
	offer(answer(image).cut_at({0x40000}).hold());
	start_daemon();
	PendingCall pending = daemon().start_update(
		{int32_field("attempts", 2), string_field("partition", "unlisted")});
	server.release();
	ASSERT_TRUE(server.wait_for_pieces(firmware, 1));
	const std::string filler = files.fill_tmp(0);
	server.on(firmware, answer(image).hold_all());
	server.release();
	ASSERT_TRUE(server.wait_for_requests(firmware, 2));
	files.remove(filler);
	server.release_all();
	expect_outcome(pending.wait(), {});
	expect_installed();
}

TEST_F(BadTmp, ReadOnlyIsAFailedDownload)
{
	record_not_opened("/tmp is mounted read-only.", "nothing");
	offer(answer(good_image()));
	start_daemon();
	const unsigned long flags = MS_REMOUNT | MS_NOSUID | MS_NODEV;
	ASSERT_EQ(mount(nullptr, "/tmp", nullptr, flags | MS_RDONLY, nullptr), 0);
	const Reply reply = daemon().update();
	ASSERT_EQ(mount(nullptr, "/tmp", nullptr, flags, nullptr), 0);
	expect_not_opened(reply);
}

TEST_F(BadTmp, LinkToNowhereIsAFailedDownload)
{
	record_not_opened("/tmp/fwupdate.bin is a link to a folder that does not exist.",
			  "nothing");
	ASSERT_EQ(symlink("/nowhere/image", image_path), 0);
	offer(answer(good_image()));
	start_daemon();
	expect_not_opened(daemon().update());
}

TEST_F(BadTmp, FolderInTheWayIsAFailedDownload)
{
	record_not_opened("/tmp/fwupdate.bin is a folder with something in it.", "the folder");
	const std::string content = std::string(image_path) + "/in-the-way";
	files.write(content, "x");
	offer(answer(good_image()));
	start_daemon();
	expect_not_opened(daemon().update());
	// An answer says that the daemon has tidied up.
	EXPECT_EQ(daemon().state_name(), "NONE");
	EXPECT_TRUE(exists(content));
	may_leave_image = true;
}

} // namespace
