// SPDX-License-Identifier: ISC
// Attempts: how many there are, time-outs, the delay, and what a retry keeps of the attempts
// before.
#include <csignal>
#include <limits>

#include "router/update_fixture.h"

using namespace router_test;

namespace
{

constexpr const char *timed_out_text = "Unable to download firmware: timeout\n";

class UpdateRetry : public UpdateTest
{
protected:
	// Of 704 milliseconds each.
	PendingCall start_two_attempts(const Fields &more = {})
	{
		Fields arguments = {int32_field("attempts", 2),
				    int32_field("timeout", seven_tenths)};
		arguments.insert(arguments.end(), more.begin(), more.end());
		return daemon().start_update(arguments);
	}

	// The call is answered when so much time has passed, and not a millisecond before.
	void expect_end_after(PendingCall &call, milliseconds time)
	{
		clock.advance(time - milliseconds(1));
		await_due_timers();
		EXPECT_FALSE(call.finished());
		clock.advance(milliseconds(1));
		EXPECT_EQ(call.wait().messages, 1);
	}
};

TEST_F(UpdateRetry, DownloadsAgainUntilItSucceeds)
{
	offer_one_after_another({answer(404, ""), answer(""), answer(good_image())});
	start_daemon();
	expect_outcome(update(5), {});
	EXPECT_EQ(downloads(), 3u);
	EXPECT_EQ(queries(), 1u);
	expect_installed();
}

TEST_F(UpdateRetry, ForgetsTheDelay)
{
	offer_one_after_another({answer(404, ""), answer(good_image())});
	start_daemon();
	expect_outcome(update(2, {int32_field("delay", 600)}), {});
	expect_installed();
}

TEST_F(UpdateRetry, InstallsAtOnceForADelayThatIsNotPositive)
{
	// The last times 1000 is -1000 in 32 bits.
	const std::int32_t delays[] = {0, -1, -600, std::numeric_limits<std::int32_t>::min(),
				       std::numeric_limits<std::int32_t>::max()};
	offer(answer(good_image()));
	start_daemon();
	std::size_t installations = 0;
	for (const std::int32_t delay : delays) {
		SCOPED_TRACE(delay);
		expect_outcome(daemon().update({int32_field("delay", delay)}), {});
		EXPECT_TRUE(files.wait_for_tool_calls(installer, ++installations));
	}
	may_leave_image = true;
}

TEST_F(UpdateRetry, DelayWrapsAroundAt32Bits)
{
	offer(answer(good_image()));
	start_without_time();
	PendingCall pending = daemon().start_update({int32_field("delay", seven_tenths)});
	ASSERT_TRUE(daemon().wait_for_state("WAIT_DELAY"));
	expect_end_after(pending, milliseconds(704));
	expect_outcome(pending.wait(), {});
	expect_installed();
}

TEST_F(UpdateRetry, GivesUpAtOnceForATimeoutThatIsNotPositive)
{
	const std::int32_t timeouts[] = {0, -1, std::numeric_limits<std::int32_t>::min(),
					 std::numeric_limits<std::int32_t>::max()};
	offer(silence());
	start_daemon();
	for (const std::int32_t timeout : timeouts) {
		SCOPED_TRACE(timeout);
		syslog.clear();
		expect_outcome(daemon().update({int32_field("timeout", timeout)}),
			       {.code = 2, .text = timed_out_text});
		const auto line = syslog.wait_for("timeout");
		ASSERT_TRUE(line.has_value());
		EXPECT_EQ(line->text + "\n", timed_out_text);
		EXPECT_EQ(line->pid, daemon().pid());
		EXPECT_EQ(daemon().state_name(), "NONE");
		EXPECT_TRUE(daemon().wait_for_workers(0));
		expect_not_installed();
	}
}

TEST_F(UpdateRetry, TimeoutEndsADownloadThatIsUnderWay)
{
	offer(answer(good_image()).cut_at({100}).hold());
	start_without_time();
	PendingCall pending = daemon().start_update({int32_field("timeout", seven_tenths)});
	server.release();
	ASSERT_TRUE(server.wait_for_pieces(firmware, 1));
	expect_end_after(pending, milliseconds(704));
	expect_outcome(pending.wait(), {.code = 2, .text = timed_out_text});
	clock.advance(std::chrono::seconds(1)); // the worker reports once a second
	EXPECT_TRUE(daemon().wait_for_workers(0));
	expect_not_installed();
}

TEST_F(UpdateRetry, SucceedsAfterATimeout)
{
	offer_one_after_another({silence(), answer(good_image())});
	start_without_time();
	PendingCall pending = start_two_attempts({int32_field("delay", 600)});
	ASSERT_TRUE(server.wait_for_requests(firmware, 1));
	expect_end_after(pending, milliseconds(704));
	expect_outcome(pending.wait(), {});
	EXPECT_EQ(syslog.count("Unable to download firmware: timeout"), 1u);
	expect_installed();
	EXPECT_TRUE(daemon().wait_for_workers(0));
}

// The failure's last record reports as many bytes as were announced: from then on the end of a
// download is taken for a whole file, however it came.
TEST_F(UpdateRetry, ReportOfAWholeFileOutlivesItsAttempt)
{
	offer_one_after_another({answer("half").announce(8).cut_at({2}).hold(),
				 answer(good_image()).without_length()});
	start_daemon();
	PendingCall pending = daemon().start_update({int32_field("attempts", 2)});
	ASSERT_TRUE(daemon().wait_for_progress(0));
	server.release_all();
	expect_outcome(pending.wait(), {});
	EXPECT_EQ(downloads(), 2u);
	expect_installed();
}

TEST_F(UpdateRetry, ReportOfAWholeFileSendsAKilledDownloadToTheImageCheck)
{
	offer_one_after_another(
		{answer("half").announce(8).cut_at({2}).hold(), answer(good_image()).hold()});
	start_daemon();
	PendingCall pending = daemon().start_update({int32_field("attempts", 2)});
	ASSERT_TRUE(daemon().wait_for_progress(0));
	server.release(2);
	// It has created the file, and no byte has come yet.
	::kill(worker_of_download(2), SIGKILL);
	expect_outcome(pending.wait(), {.code = 3, .text = "Can't mmap image [-4]"});
	expect_not_installed();
}

} // namespace
