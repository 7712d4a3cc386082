// SPDX-License-Identifier: ISC
#include <climits>
#include <ctime>

#include "loop.h"

namespace
{

using UloopTimeout = Loop;

TEST_F(UloopTimeout, TimersRunInTheOrderOfTheirTime)
{
	Timer a("a");
	Timer b("b");
	Timer c("c");
	Timer end("end", uloop_end);

	// Long ago, so that how long this takes changes nothing.
	c.time = {.tv_sec = 0, .tv_usec = 3000};
	end.time = {.tv_sec = 1, .tv_usec = 0};
	a.time = {.tv_sec = 0, .tv_usec = 1000};
	b.time = {.tv_sec = 0, .tv_usec = 2000};
	for (Timer *timer : {&c, &end, &a, &b})
		EXPECT_EQ(uloop_timeout_add(timer), 0);
	run();
	EXPECT_EQ(trace, "a b c end ");
}

TEST_F(UloopTimeout, ALaterTimerWaitsForItsTime)
{
	Timer end("end", uloop_end);
	timespec before;
	timespec after;

	clock_gettime(CLOCK_MONOTONIC, &before);
	uloop_timeout_set(&end, 30);
	run();
	clock_gettime(CLOCK_MONOTONIC, &after);
	EXPECT_GE((after.tv_sec - before.tv_sec) * 1000000 +
			  (after.tv_nsec - before.tv_nsec) / 1000,
		  29000);
}

TEST_F(UloopTimeout, DelaysOfZeroAndLessFireOnTheNextPass)
{
	Timer least("least");
	Timer less("less");
	Timer zero("zero");
	Timer end("end", uloop_end);

	uloop_timeout_set(&zero, 0);
	uloop_timeout_set(&less, -5000);
	uloop_timeout_set(&least, INT_MIN);
	EXPECT_EQ(uloop_get_next_timeout(), 0);
	EXPECT_EQ(trace, "");
	uloop_timeout_set(&end, 1);
	run();
	EXPECT_EQ(trace, "least less zero end ");
}

TEST_F(UloopTimeout, ATimerIsOutBeforeItsCallbackRuns)
{
	int left = 3;
	Timer t("t");

	t.action = [&] {
		EXPECT_FALSE(t.pending);
		EXPECT_EQ(uloop_timeout_cancel(&t), -1);
		if (--left > 0) {
			uloop_timeout_set(&t, 1);
		} else {
			uloop_end();
		}
	};
	uloop_timeout_set(&t, 0);
	run();
	EXPECT_EQ(trace, "t t t ");
	EXPECT_EQ(uloop_get_next_timeout(), -1);
}

TEST_F(UloopTimeout, ATimerMayClearItsOwnMemory)
{
	auto *t = new uloop_timeout{};

	t->cb = [](uloop_timeout *self) {
		memset(self, 0xff, sizeof(*self));
		delete self;
		uloop_end();
	};
	uloop_timeout_set(t, 0);
	run();
	EXPECT_EQ(uloop_get_next_timeout(), -1);
}

TEST_F(UloopTimeout, ATimerThatIsDueCanStillBeCancelledByAnother)
{
	Timer second("second");
	Timer first("first", [&] {
		EXPECT_EQ(uloop_timeout_cancel(&second), 0);
		uloop_end();
	});

	uloop_timeout_set(&first, -2);
	uloop_timeout_set(&second, -1);
	run();
	EXPECT_EQ(trace, "first ");
}

TEST_F(UloopTimeout, SettingAgainMovesTheTimer)
{
	Timer t("t");
	Timer end("end", uloop_end);

	EXPECT_EQ(uloop_timeout_set(&t, 0), 0);
	EXPECT_EQ(uloop_timeout_set(&t, 60000), 0);
	uloop_timeout_set(&end, 5);
	run();
	EXPECT_EQ(trace, "end ");
	EXPECT_TRUE(t.pending);
}

TEST_F(UloopTimeout, OnlyWaitingTimersAreCancelledAndAdded)
{
	Timer t("t");

	EXPECT_EQ(uloop_timeout_cancel(&t), -1);
	EXPECT_EQ(uloop_timeout_set(&t, 1000), 0);
	EXPECT_EQ(uloop_timeout_add(&t), -1);
	EXPECT_EQ(uloop_timeout_cancel(&t), 0);
	EXPECT_EQ(uloop_timeout_cancel(&t), -1);
	EXPECT_EQ(uloop_timeout_add(&t), 0);
}

TEST_F(UloopTimeout, RemainingTimeIsInMilliseconds)
{
	Timer t("t");

	EXPECT_EQ(uloop_timeout_remaining64(&t), -1);
	EXPECT_EQ(uloop_get_next_timeout(), -1);
	uloop_timeout_set(&t, 100000);
	EXPECT_LE(uloop_timeout_remaining64(&t), 100000);
	EXPECT_GT(uloop_timeout_remaining64(&t), 90000);
	EXPECT_LE(uloop_get_next_timeout(), 100000);
	EXPECT_GT(uloop_get_next_timeout(), 90000);
	uloop_timeout_set(&t, INT_MAX);
	EXPECT_GT(uloop_timeout_remaining64(&t), INT_MAX - 10000);
	uloop_timeout_set(&t, -1000);
	EXPECT_LE(uloop_timeout_remaining64(&t), -1000);
	EXPECT_EQ(uloop_get_next_timeout(), 0);
}

TEST_F(UloopTimeout, DoneDropsWaitingTimers)
{
	Timer t("t");

	uloop_timeout_set(&t, 0);
	uloop_done();
	EXPECT_FALSE(t.pending);
	ASSERT_EQ(uloop_init(), 0);
	EXPECT_EQ(run_what_is_ready(), "");
}

TEST_F(UloopTimeout, DueTimersRunBeforeDescriptors)
{
	Pipe pipe;
	Watch watch(pipe.read_end);
	Timer t("t");

	watch.action = [](Watch &, unsigned int) {
		uloop_end();
	};
	pipe.fill("x");
	uloop_fd_add(&watch, ULOOP_READ);
	uloop_timeout_set(&t, 0);
	run();
	EXPECT_EQ(trace, "t fd:r ");
}

TEST_F(UloopTimeout, DueTimersRunBetweenTwoReadyDescriptors)
{
	Pipe one;
	Pipe other;
	Timer t("t");
	Watch first(one.read_end, "first");
	Watch second(other.read_end, "second");

	one.fill("x");
	other.fill("x");
	first.action = [&](Watch &self, unsigned int) {
		uloop_fd_delete(&self);
		uloop_timeout_set(&t, 0);
	};
	second.action = [](Watch &, unsigned int) {
		uloop_end();
	};
	uloop_fd_add(&first, ULOOP_READ);
	uloop_fd_add(&second, ULOOP_READ);
	run();
	EXPECT_EQ(trace, "first:r t second:r ");
}

} // namespace
