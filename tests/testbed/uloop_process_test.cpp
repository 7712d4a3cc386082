// SPDX-License-Identifier: ISC
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include "loop.h"

namespace
{

using UloopProcess = Loop;

struct Child : uloop_process {
	explicit Child(pid_t child_pid) : uloop_process{}
	{
		pid = child_pid;
		cb = [](uloop_process *p, int status) {
			EXPECT_FALSE(p->pending);
			trace += WIFEXITED(status) ? "exit" + std::to_string(WEXITSTATUS(status))
						   : "signal" + std::to_string(WTERMSIG(status));
			trace += " ";
			uloop_end();
		};
	}
};

pid_t fork_child(int exit_status)
{
	const pid_t pid = fork();

	if (pid == 0)
		_exit(exit_status);
	return pid;
}

// Waits until the child has exited, and leaves it to be collected.
void wait_for_exit(pid_t pid)
{
	siginfo_t info;

	while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 &&
	       errno == EINTR) {
	}
}

bool is_collected(pid_t pid)
{
	siginfo_t info;

	return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 &&
	       errno == ECHILD;
}

TEST_F(UloopProcess, ChildrenReportTheirStatus)
{
	Child child(fork_child(7));

	EXPECT_EQ(uloop_process_add(&child), 0);
	EXPECT_EQ(uloop_process_add(&child), -1);
	run();
	EXPECT_EQ(trace, "exit7 ");
	EXPECT_EQ(uloop_process_delete(&child), -1);
	EXPECT_TRUE(is_collected(child.pid));

	const pid_t pid = fork();
	if (pid == 0) {
		pause();
		_exit(0);
	}
	Child killed(pid);
	uloop_process_add(&killed);
	kill(pid, SIGKILL);
	run();
	EXPECT_EQ(trace, "exit7 signal9 ");
}

TEST_F(UloopProcess, UnannouncedChildrenAreCollectedToo)
{
	pid_t strangers[5];

	for (pid_t &pid : strangers) {
		pid = fork_child(1);
		wait_for_exit(pid);
	}
	Child child(fork_child(2));
	uloop_process_add(&child);
	run();
	EXPECT_EQ(trace, "exit2 ");
	for (const pid_t pid : strangers)
		EXPECT_TRUE(is_collected(pid));
}

TEST_F(UloopProcess, AForgottenChildIsCollectedInSilence)
{
	Child forgotten(fork_child(1));
	Child child(fork_child(2));

	uloop_process_add(&forgotten);
	EXPECT_EQ(uloop_process_delete(&forgotten), 0);
	wait_for_exit(forgotten.pid);
	uloop_process_add(&child);
	run();
	EXPECT_EQ(trace, "exit2 ");
	EXPECT_TRUE(is_collected(forgotten.pid));
}

TEST_F(UloopProcess, AChildThatClosesItsLoopLeavesTheParents)
{
	Pipe pipe;
	Watch watch(pipe.read_end);

	watch.action = [](Watch &, unsigned int) {
		uloop_end();
	};
	uloop_fd_add(&watch, ULOOP_READ);
	const pid_t pid = fork();
	if (pid == 0) {
		uloop_done();
		_exit(0);
	}
	wait_for_exit(pid);
	pipe.fill("x");
	run();
	EXPECT_EQ(trace, "fd:r ");
}

} // namespace
