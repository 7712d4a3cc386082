// SPDX-License-Identifier: ISC
// The event loop for the tests in this folder: records that write down what happened to
// them, and a run that cannot last for ever.
#pragma once

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "libubox.h"

// What the callbacks saw, in order.
inline std::string trace;

struct Timer : uloop_timeout {
	std::string name;
	std::function<void()> action;

	explicit Timer(std::string timer_name, std::function<void()> timer_action = {})
	    : uloop_timeout{}, name(std::move(timer_name)), action(std::move(timer_action))
	{
		cb = [](uloop_timeout *t) {
			auto *self = static_cast<Timer *>(t);

			trace += self->name + " ";
			if (self->action)
				self->action();
		};
	}
	~Timer()
	{
		uloop_timeout_cancel(this);
	}
	Timer(const Timer &) = delete;
	Timer &operator=(const Timer &) = delete;
};

// Traces "name:" and r, w, eof, error as far as they are told.
struct Watch : uloop_fd {
	std::string name;
	std::function<void(Watch &, unsigned int)> action;

	explicit Watch(int watched_fd, std::string watch_name = "fd")
	    : uloop_fd{}, name(std::move(watch_name))
	{
		fd = watched_fd;
		cb = [](uloop_fd *u, unsigned int events) {
			auto *self = static_cast<Watch *>(u);

			trace += self->name + ":";
			trace += events & ULOOP_READ ? "r" : "";
			trace += events & ULOOP_WRITE ? "w" : "";
			trace += self->eof ? "+eof" : "";
			trace += self->error ? "+error" : "";
			trace += " ";
			if (self->action)
				self->action(*self, events);
		};
	}
	~Watch()
	{
		uloop_fd_delete(this);
	}
	Watch(const Watch &) = delete;
	Watch &operator=(const Watch &) = delete;
};

struct Pipe {
	int read_end = -1;
	int write_end = -1;

	explicit Pipe(bool socket = false)
	{
		int fds[2];

		if ((socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, fds) : pipe(fds)) != 0)
			abort();
		read_end = fds[0];
		write_end = fds[1];
	}
	~Pipe()
	{
		close_one(read_end);
		close_one(write_end);
	}
	Pipe(const Pipe &) = delete;
	Pipe &operator=(const Pipe &) = delete;

	void fill(const char *text) const
	{
		ASSERT_EQ(write(write_end, text, strlen(text)), static_cast<ssize_t>(strlen(text)));
	}
	static void close_one(int &fd)
	{
		if (fd >= 0)
			close(fd);
		fd = -1;
	}
};

class Loop : public testing::Test
{
protected:
	void SetUp() override
	{
		trace.clear();
		// Tests that are run in the background have it ignored, and so would the loop.
		std::signal(SIGINT, SIG_DFL);
		ASSERT_EQ(uloop_init(), 0);
	}
	void TearDown() override
	{
		uloop_done();
	}

	// Runs until uloop_end(); fails when nobody calls it for ten seconds.
	static int run()
	{
		Timer guard("guard", [] {
			ADD_FAILURE() << "the loop did not end";
			uloop_end();
		});

		uloop_timeout_set(&guard, 10000);
		return uloop_run();
	}
	// Runs all that is ready, and ends when there is nothing left to do at once.
	static std::string run_what_is_ready()
	{
		trace.clear();
		for (std::string before = "-"; before != trace;) {
			before = trace;
			for (int pass = 0; pass < 3; pass++)
				uloop_run_timeout(0);
		}
		return trace;
	}
};
