// SPDX-License-Identifier: ISC
#include <cerrno>
#include <memory>

#include "loop.h"

namespace
{

using Uloop = Loop;

bool is_non_blocking(int fd)
{
	return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

TEST_F(Uloop, AddMakesTheDescriptorNonBlockingUnlessToldNotTo)
{
	Pipe usual;
	Pipe blocking;
	Watch first(usual.read_end);
	Watch second(blocking.read_end);

	ASSERT_EQ(uloop_fd_add(&first, ULOOP_READ), 0);
	ASSERT_EQ(uloop_fd_add(&second, ULOOP_READ | ULOOP_BLOCKING), 0);
	EXPECT_TRUE(is_non_blocking(usual.read_end));
	EXPECT_FALSE(is_non_blocking(blocking.read_end));
	EXPECT_TRUE(first.registered);
	EXPECT_EQ(second.flags, ULOOP_READ | ULOOP_BLOCKING);
}

TEST_F(Uloop, WhatCannotBeWatchedIsRefused)
{
	const int closed = dup(0);
	const int regular = open("/proc/self/exe", O_RDONLY | O_CLOEXEC);

	close(closed);
	for (const int fd : {-1, closed, regular}) {
		Watch watch(fd);

		EXPECT_EQ(uloop_fd_add(&watch, ULOOP_READ), -1) << fd;
		EXPECT_FALSE(watch.registered) << fd;
		EXPECT_EQ(uloop_fd_delete(&watch), 0) << fd;
	}
	close(regular);
}

TEST_F(Uloop, AddWithoutEventsDeletes)
{
	Pipe pipe;
	Watch watch(pipe.read_end);

	ASSERT_EQ(uloop_fd_add(&watch, ULOOP_READ), 0);
	EXPECT_EQ(uloop_fd_add(&watch, 0), 0);
	EXPECT_FALSE(watch.registered);
	pipe.fill("x");
	EXPECT_EQ(run_what_is_ready(), "");
}

TEST_F(Uloop, DeletingWhatIsClosedFailsAndForgetsTheWatch)
{
	Pipe pipe;
	Watch watch(pipe.read_end);

	ASSERT_EQ(uloop_fd_add(&watch, ULOOP_READ), 0);
	Pipe::close_one(pipe.read_end);
	EXPECT_EQ(uloop_fd_delete(&watch), -1);
	EXPECT_FALSE(watch.registered);
	EXPECT_EQ(uloop_fd_delete(&watch), 0);
}

TEST_F(Uloop, AddAgainChangesTheEventsAndClearsEof)
{
	Pipe pipe(true);
	Watch watch(pipe.read_end);

	watch.action = [](Watch &, unsigned int) {
		uloop_end();
	};
	ASSERT_EQ(uloop_fd_add(&watch, ULOOP_WRITE), 0);
	run();
	shutdown(pipe.write_end, SHUT_WR);
	trace.clear();
	ASSERT_EQ(uloop_fd_add(&watch, ULOOP_READ), 0);
	run();
	EXPECT_EQ(trace, "fd:r+eof ");
	ASSERT_EQ(uloop_fd_add(&watch, ULOOP_READ), 0);
	EXPECT_FALSE(watch.eof);
}

TEST_F(Uloop, DescriptorsAreLevelTriggered)
{
	Pipe pipe;
	Watch watch(pipe.read_end);

	watch.action = [&](Watch &self, unsigned int) {
		char byte;

		if (read(self.fd, &byte, 1) != 1 || byte == 'c')
			uloop_end();
	};
	pipe.fill("abc");
	uloop_fd_add(&watch, ULOOP_READ);
	run();
	EXPECT_EQ(trace, "fd:r fd:r fd:r ");
}

TEST_F(Uloop, PeerShutdownIsEofWithTheDataThatIsLeft)
{
	Pipe pipe(true);
	Watch watch(pipe.read_end);

	watch.action = [](Watch &self, unsigned int) {
		char byte;

		if (read(self.fd, &byte, 1) == 0)
			uloop_end();
	};
	pipe.fill("x");
	shutdown(pipe.write_end, SHUT_WR);
	uloop_fd_add(&watch, ULOOP_READ);
	run();
	EXPECT_EQ(trace, "fd:r+eof fd:r+eof ");
	EXPECT_FALSE(watch.error);
	EXPECT_TRUE(watch.registered);
}

TEST_F(Uloop, PipeHangUpIsAnErrorAndEndsTheWatch)
{
	const struct {
		const char *left;
		const char *seen;
	} cases[] = {{"", "fd:+error "}, {"data", "fd:r+error "}};

	for (const auto &c : cases) {
		Pipe pipe;
		Watch watch(pipe.read_end);

		trace.clear();
		watch.action = [](Watch &self, unsigned int) {
			EXPECT_FALSE(self.registered);
			uloop_end();
		};
		pipe.fill(c.left);
		Pipe::close_one(pipe.write_end);
		uloop_fd_add(&watch, ULOOP_READ);
		run();
		EXPECT_EQ(trace, c.seen);
		EXPECT_EQ(run_what_is_ready(), "");
	}
}

TEST_F(Uloop, ErrorCallbackKeepsTheWatch)
{
	int calls = 0;
	Pipe pipe;
	Watch watch(pipe.read_end);

	watch.action = [&](Watch &self, unsigned int) {
		EXPECT_TRUE(self.registered);
		if (++calls == 2)
			uloop_end();
	};
	Pipe::close_one(pipe.write_end);
	uloop_fd_add(&watch, ULOOP_READ | ULOOP_ERROR_CB);
	run();
	EXPECT_EQ(trace, "fd:+error fd:+error ");
}

TEST_F(Uloop, WriteErrorIsToldToTheWriter)
{
	Pipe pipe;
	Watch watch(pipe.write_end);

	watch.action = [](Watch &, unsigned int) {
		uloop_end();
	};
	Pipe::close_one(pipe.read_end);
	uloop_fd_add(&watch, ULOOP_WRITE);
	run();
	EXPECT_EQ(trace, "fd:w+error ");
	EXPECT_FALSE(watch.registered);
}

TEST_F(Uloop, DeletedWatchDropsItsFetchedEvent)
{
	Pipe pipes[3];
	std::unique_ptr<Watch> watches[3];

	for (int i = 0; i < 3; i++) {
		watches[i] = std::make_unique<Watch>(pipes[i].read_end, std::to_string(i));
		pipes[i].fill("x");
		uloop_fd_add(watches[i].get(), ULOOP_READ);
	}
	watches[0]->action = [&](Watch &self, unsigned int) {
		uloop_fd_delete(&self);
		watches[1].reset();
	};
	watches[2]->action = [](Watch &, unsigned int) {
		uloop_end();
	};
	run();
	EXPECT_EQ(trace, "0:r 2:r ");
}

TEST_F(Uloop, AWatchMayFreeItselfInItsCallback)
{
	Pipe pipe;
	auto watch = std::make_unique<Watch>(pipe.read_end);
	auto *raw = static_cast<uloop_fd *>(watch.get());

	raw->cb = [](uloop_fd *self, unsigned int) {
		delete static_cast<Watch *>(self);
		uloop_end();
	};
	pipe.fill("x");
	uloop_fd_add(watch.release(), ULOOP_READ);
	run();
	EXPECT_EQ(run_what_is_ready(), "");
}

TEST_F(Uloop, MoreReadyDescriptorsThanOneFetchTakesAreAllServed)
{
	constexpr int count = 40;
	int served = 0;
	Pipe pipes[count];
	std::unique_ptr<Watch> watches[count];

	for (int i = 0; i < count; i++) {
		watches[i] = std::make_unique<Watch>(pipes[i].read_end);
		watches[i]->action = [&](Watch &self, unsigned int) {
			uloop_fd_delete(&self);
			if (++served == count)
				uloop_end();
		};
		pipes[i].fill("x");
		uloop_fd_add(watches[i].get(), ULOOP_READ);
	}
	run();
	EXPECT_EQ(served, count);
}

} // namespace
