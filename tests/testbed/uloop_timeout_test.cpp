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

} // namespace
