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

} // namespace
