// SPDX-License-Identifier: ISC
// How runs of the loop begin and end: uloop_end and signals.
#include <dirent.h>

#include <cerrno>
#include <csignal>
#include <ctime>
#include <set>

#include "loop.h"

namespace
{

using UloopRun = Loop;

std::set<int> open_descriptors()
{
	std::set<int> found;
	DIR *dir = opendir("/proc/self/fd");

	while (const dirent *entry = readdir(dir)) {
		const int fd = atoi(entry->d_name);

		if (entry->d_name[0] != '.' && fd != dirfd(dir))
			found.insert(fd);
	}
	closedir(dir);
	return found;
}

// Signals this process every ten milliseconds: a single signal might come too early, before
// what it is to interrupt has begun.
class RepeatedSignal
{
public:
	explicit RepeatedSignal(int number)
	{
		const itimerspec often = {{0, 10000000}, {0, 10000000}};
		sigevent event{};

		event.sigev_notify = SIGEV_SIGNAL;
		event.sigev_signo = number;
		if (timer_create(CLOCK_MONOTONIC, &event, &timer_) != 0)
			abort();
		timer_settime(timer_, 0, &often, nullptr);
	}
	~RepeatedSignal()
	{
		timer_delete(timer_);
	}
	RepeatedSignal(const RepeatedSignal &) = delete;
	RepeatedSignal &operator=(const RepeatedSignal &) = delete;

private:
	timer_t timer_;
};

TEST(UloopDescriptors, AreCloseOnExecAndGoneAfterDone)
{
	const std::set<int> before = open_descriptors();

	ASSERT_EQ(uloop_init(), 0);
	ASSERT_EQ(uloop_init(), 0);
	EXPECT_GT(open_descriptors().size(), before.size());
	for (const int fd : open_descriptors()) {
		const bool inherited = before.count(fd) != 0;

		EXPECT_TRUE(inherited || (fcntl(fd, F_GETFD) & FD_CLOEXEC)) << fd;
	}
	uloop_done();
	uloop_done();
	EXPECT_EQ(open_descriptors(), before);
}

TEST(UloopDescriptors, WithoutALoopNothingIsWatched)
{
	Pipe pipe;
	Watch watch(pipe.read_end);

	EXPECT_EQ(uloop_fd_add(&watch, ULOOP_READ), -1);
	EXPECT_FALSE(watch.registered);
	EXPECT_EQ(uloop_run_timeout(0), 0);
}

TEST_F(UloopRun, AnEndBeforeTheRunIsForgotten)
{
	Timer end("end", uloop_end);

	uloop_timeout_set(&end, 1);
	uloop_end();
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(trace, "end ");
}

TEST_F(UloopRun, AnEndInAnInnerRunEndsTheOuterOne)
{
	Timer end("end", uloop_end);
	Timer outer("outer", [&] {
		uloop_timeout_set(&end, 1);
		EXPECT_EQ(uloop_run(), 0);
		trace += "back ";
	});

	uloop_timeout_set(&outer, 0);
	EXPECT_EQ(run(), 0);
	EXPECT_EQ(trace, "outer end back ");
}

TEST_F(UloopRun, ALimitedRunIsOnePass)
{
	Timer due("due");
	Timer later("later");
	Pipe pipe;
	Watch watch(pipe.read_end);

	EXPECT_EQ(uloop_run_timeout(1), 0);
	pipe.fill("x");
	uloop_fd_add(&watch, ULOOP_READ);
	uloop_timeout_set(&due, 0);
	uloop_timeout_set(&later, 100000);
	EXPECT_EQ(uloop_run_timeout(100000), 0);
	EXPECT_EQ(trace, "due fd:r ");
	EXPECT_EQ(uloop_run_timeout(0), 0);
	EXPECT_EQ(trace, "due fd:r fd:r ");
}

TEST_F(UloopRun, EndingSignalsAreReturned)
{
	for (const int number : {SIGTERM, SIGINT}) {
		Timer t("t", [&] { raise(number); });

		uloop_timeout_set(&t, 0);
		EXPECT_EQ(run(), number);
		EXPECT_TRUE(uloop_cancelled);
	}
	Timer end("end", uloop_end);
	uloop_timeout_set(&end, 0);
	EXPECT_EQ(run(), 0);
}

TEST_F(UloopRun, ASignalEndsTheWait)
{
	Pipe never;
	Watch watch(never.read_end);

	uloop_fd_add(&watch, ULOOP_READ);
	const RepeatedSignal signal(SIGTERM);
	EXPECT_EQ(run(), SIGTERM);
	EXPECT_EQ(trace, "");
}

TEST_F(UloopRun, ABlockingReadIsInterrupted)
{
	Pipe never;
	char byte;

	const RepeatedSignal signal(SIGTERM);
	EXPECT_EQ(read(never.read_end, &byte, 1), -1);
	EXPECT_EQ(errno, EINTR);
}

TEST(UloopSignals, OnlyUnhandledSignalsAreTakenAndAllAreGivenBack)
{
	struct sigaction found;

	signal(SIGINT, SIG_IGN);
	signal(SIGTERM, SIG_DFL);
	ASSERT_EQ(uloop_init(), 0);
	sigaction(SIGINT, nullptr, &found);
	EXPECT_EQ(found.sa_handler, SIG_IGN);
	sigaction(SIGTERM, nullptr, &found);
	EXPECT_NE(found.sa_handler, SIG_DFL);
	EXPECT_EQ(found.sa_flags & SA_RESTART, 0);
	sigaction(SIGCHLD, nullptr, &found);
	EXPECT_NE(found.sa_handler, SIG_DFL);
	EXPECT_EQ(found.sa_flags & SA_RESTART, 0);
	uloop_done();
	for (const int number : {SIGTERM, SIGCHLD}) {
		sigaction(number, nullptr, &found);
		EXPECT_EQ(found.sa_handler, SIG_DFL) << number;
	}
	sigaction(SIGINT, nullptr, &found);
	EXPECT_EQ(found.sa_handler, SIG_IGN);
	signal(SIGINT, SIG_DFL);
}

} // namespace
