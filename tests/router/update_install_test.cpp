// SPDX-License-Identifier: ISC
// The end of a good update: the boot partition, the delay, the answer and the hand-over to the
// installer.
#include <unistd.h>

#include "router/update_fixture.h"

using namespace router_test;

namespace
{

class UpdateInstall : public UpdateTest
{
};

TEST_F(UpdateInstall, AnswersBeforeTheInstallerStarts)
{
	const Gate gate;
	files.install_recording_tool(sleep_tool, "read line <" + gate.path());
	offer(answer(good_image()));
	start_daemon();
	// The answer is here while the two seconds are not over.
	expect_outcome(daemon().update(), {});
	ASSERT_TRUE(files.wait_for_tool_calls(sleep_tool, 1));
	EXPECT_EQ(files.tool_calls(sleep_tool), (Calls{{sleep_tool, "2"}}));
	EXPECT_EQ(files.tool_calls(installer), Calls{});
	gate.open();
	expect_installed();
}

TEST_F(UpdateInstall, InstallerInheritsNoDescriptor)
{
	files.install_recording_tool(installer, "for each in /realproc/$$/fd/*; do\n"
						"readlink $each\n"
						"done >/var/descriptors.new\n"
						"mv /var/descriptors.new /var/descriptors");
	files.remove("/var/descriptors");
	offer(answer(good_image()));
	start_daemon();
	expect_outcome(daemon().update(), {});
	expect_installed();
	ASSERT_TRUE(wait_until_exists("/var/descriptors"));
	const std::string open = read_file("/var/descriptors");
	EXPECT_NE(open.find("/dev/null"), std::string::npos) << open;
	for (const char *kind : {"socket:", "eventpoll", "eventfd", "/tmp/"}) {
		EXPECT_EQ(open.find(kind), std::string::npos) << open;
	}
	unlink("/var/descriptors");
}

TEST_F(UpdateInstall, RealToolsRecordAndInstall)
{
	const std::string image = good_image();
	files.restore();
	files.set_manifest_url(server.url(manifest_path));
	files.install_tool(sleep_tool, "exit 0");
	files.set_boot_environment({"bootpart=firmware2"});
	files.remove("/var/log/sysupgrade");
	offer(answer(image));
	start_daemon();
	expect_outcome(daemon().update({string_field("partition", "firmware")}), {});
	EXPECT_EQ(shell("fw_printenv bootpart").output, "bootpart=firmware\n");
	ASSERT_TRUE(wait_until_exists("/var/log/sysupgrade"));
	const std::string record = read_file("/var/log/sysupgrade");
	EXPECT_EQ(record.substr(0, record.find("sha256")),
		  "command: sysupgrade -F /tmp/fwupdate.bin\nsize: " +
			  std::to_string(image.size()) + "\n");
	unlink("/var/log/sysupgrade");
	may_leave_image = true;
}

TEST_F(UpdateInstall, RecordsThePartitionBeforeTheDelay)
{
	offer(answer(good_image()));
	start_daemon();
	PendingCall pending = daemon().start_update({int32_field("delay", 600)});
	ASSERT_TRUE(daemon().wait_for_state("WAIT_DELAY"));
	expect_recorded("firmware2");
	EXPECT_EQ(daemon().state().fields,
		  (Fields{string_field("state", "WAIT_DELAY"), string_field("message", "")}));
	EXPECT_FALSE(pending.finished());
	EXPECT_EQ(files.tool_calls(sleep_tool), Calls{});
	EXPECT_TRUE(exists(image_path));
	may_leave_image = true;
}

TEST_F(UpdateInstall, AnswersAfterTheDelay)
{
	offer(answer(good_image()));
	start_without_time();
	PendingCall pending = daemon().start_update({int32_field("delay", 1)});
	ASSERT_TRUE(daemon().wait_for_state("WAIT_DELAY"));
	clock.advance(milliseconds(999));
	await_due_timers();
	EXPECT_FALSE(pending.finished());
	clock.advance(milliseconds(1));
	expect_outcome(pending.wait(), {});
	expect_installed();
}

TEST_F(UpdateInstall, DelayIsNotStoppedByCheckAndTest)
{
	offer(answer(good_image()));
	start_without_time();
	PendingCall pending = daemon().start_update({int32_field("delay", 1)});
	ASSERT_TRUE(daemon().wait_for_state("WAIT_DELAY"));
	daemon().check();
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	daemon().test();
	EXPECT_EQ(daemon().state_name(), "NONE");
	EXPECT_FALSE(pending.finished());
	clock.go_on();
	expect_outcome(pending.wait(), {});
	EXPECT_EQ(daemon().state_name(), "NONE");
	expect_installed();
}

TEST_F(UpdateInstall, AnswerCarriesTheForceFlagOfItsRequest)
{
	offer(answer(good_image()), nothing_newer());
	start_daemon();
	expect_outcome(daemon().update({string_field("force", "1")}),
		       {.force = "1", .buildtime = router_builddate()});
	expect_installed();
}

TEST_F(UpdateInstall, FirstAttemptIsInstalledThoughThePartitionCannotBeRecorded)
{
	files.install_recording_tool(setenv_tool, "exit 255");
	offer(answer(good_image()));
	start_daemon();
	expect_outcome(daemon().update(), {});
	ASSERT_EQ(syslog.lines().size(), 1u);
	EXPECT_EQ(syslog.lines().front().text, not_recorded);
	EXPECT_EQ(text_of(daemon().state().fields, "message"), not_recorded);
	expect_installed();
	EXPECT_EQ(downloads(), 1u);
}

TEST_F(UpdateInstall, RefusalHasTheFixedTextWithoutDebug)
{
	files.install_recording_tool(setenv_tool, "exit 1");
	offer_one_after_another({answer(404, ""), answer(good_image())});
	start_daemon({});
	expect_outcome(daemon().update({int32_field("attempts", 2)}),
		       {.code = 2, .text = download_failed});
	expect_not_installed();
	EXPECT_TRUE(syslog.lines().empty());
}

} // namespace
