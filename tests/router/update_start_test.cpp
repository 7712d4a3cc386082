// SPDX-License-Identifier: ISC
// Downloads that cannot start: what keeps them from it, what that costs, and how it blocks the
// daemon when no attempt is left.
#include <limits>

#include "router/update_fixture.h"

using namespace router_test;

namespace
{

constexpr const char *no_free_space = "Error on reading tmpfs\n";

class UpdateStart : public UpdateTest
{
};

TEST_F(UpdateStart, FreeSpaceThatCannotBeMeasuredIsAFailedStart)
{
	struct {
		const char *name;
		const char *body;
	} const cases[] = {
		{"prints nothing", "exit 0"},
		{"shows another file system", "echo '/dev/root 1 2 3 4% /tmp'"},
		{"complains", "echo 'tmpfs 1 2 3 4% /tmp' >&2; exit 1"},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.name);
		files.install_tool(df_tool, row.body);
		offer();
		start_daemon();
		expect_outcome(daemon().update(), {.code = 2, .text = "Error on reading tmpfs\n"});
		expect_outcome(daemon().update(), {.code = 6, .text = already_updating});
	}
	files.remove(df_tool);
	start_daemon();
	expect_outcome(daemon().update(), {.code = 2, .text = "Error on reading tmpfs\n"});
	EXPECT_EQ(downloads(), 0u);
}

TEST_F(UpdateStart, FreeSpaceThatIsNoNumberIsNone)
{
	files.install_tool(df_tool, "echo 'tmpfs much little lots 0% /tmp'");
	offer(answer(good_image()));
	start_daemon();
	expect_outcome(daemon().update({string_field("partition", "unlisted")}), {});
	expect_outcome(daemon().update({string_field("partition", "firmware")}),
		       {.code = 2, .text = "Error, not enough memory to load firmware!\n"});
	EXPECT_EQ(downloads(), 1u);
	expect_installed();
}

TEST_F(UpdateStart, RouterWithoutAPartitionTableIsUpdatedWhenAPartitionIsNamed)
{
	files.remove("/proc/mtd");
	offer(answer(good_image()));
	start_daemon();
	expect_outcome(daemon().update({string_field("partition", "firmware")}), {});
	expect_installed();
}

TEST_F(UpdateStart, FailedStartWithoutAttemptsLeftBlocksLaterUpdates)
{
	break_starts(1, 1);
	offer(answer(good_image()));
	start_daemon();
	expect_outcome(update(1), {.code = 2, .text = no_free_space});
	expect_outcome(update(1), {.code = 6, .text = already_updating});
	expect_outcome(update(3, {string_field("force", "1")}),
		       {.code = 6, .text = already_updating, .force = "1"});
	daemon().test();
	daemon().check();
	expect_outcome(update(1), {.code = 6, .text = already_updating});
	EXPECT_EQ(starts(), 1u);
	EXPECT_EQ(downloads(), 0u);
}

TEST_F(UpdateStart, BlockedDaemonUpdatesAfterARestart)
{
	break_starts(1, 1);
	offer(answer(good_image()));
	start_daemon();
	EXPECT_EQ(code_of(update(1)), 2);
	EXPECT_EQ(code_of(update(1)), 6);
	start_daemon();
	expect_outcome(update(1), {});
	expect_installed();
}

TEST_F(UpdateStart, FailedStartIsRepeatedAfterASecond)
{
	break_starts(1, 1);
	offer(answer(good_image()));
	start_daemon();
	PendingCall pending =
		daemon().start_update({int32_field("attempts", 3), int32_field("delay", 600)});
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	EXPECT_FALSE(pending.finished());
	expect_outcome(pending.wait(), {});
	EXPECT_EQ(starts(), 2u);
	EXPECT_EQ(syslog.texts(), (std::vector<std::string>{"Error on reading tmpfs"}));
	expect_installed();
}

TEST_F(UpdateStart, FailedStartAfterABadImageLeavesTheCheckStanding)
{
	break_starts(2, 2);
	offer_one_after_another({answer("no firmware"), answer(good_image())});
	start_daemon();
	PendingCall pending = daemon().start_update({int32_field("attempts", 4)});
	ASSERT_TRUE(daemon().wait_for_state("FIRMWARE_CHECK"));
	EXPECT_EQ(daemon().state().fields, (Fields{string_field("state", "FIRMWARE_CHECK"),
						   string_field("message", no_free_space)}));
	expect_outcome(pending.wait(), {});
	expect_installed();
}

} // namespace
