// SPDX-License-Identifier: ISC
#include "support/refusals.h"

#include <cerrno>
#include <cstddef>
#include <future>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace router_test
{

namespace
{

// Load the call's number; for each refused call: equal? return the error; at last: allow.
std::vector<sock_filter> make_filter(const std::vector<int> &calls, int error)
{
	std::vector<sock_filter> filter = {
		BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
	for (const int call : calls) {
		filter.push_back(
			BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1));
		filter.push_back(BPF_STMT(BPF_RET | BPF_K,
					  SECCOMP_RET_ERRNO | static_cast<unsigned>(error)));
	}
	filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
	return filter;
}

bool install(std::vector<sock_filter> &filter)
{
	sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
	return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
	       syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0;
}

// A filter that asks the holder of the returned descriptor about each such call; -1 on failure.
int install_question(int call)
{
	sock_filter filter[] = {
		BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
		BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1),
		BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
		BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
	};
	sock_fprog program = {sizeof(filter) / sizeof(filter[0]), filter};
	prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
	return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
					SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
}

// Lets every call through but the nth of `thread`, until nothing is left that could call.
void answer_questions(int listener, pid_t thread, int nth, int error)
{
	pollfd watched = {listener, POLLIN, 0};
	int count = 0;
	while (poll(&watched, 1, -1) > 0 && (watched.revents & POLLIN) != 0) {
		seccomp_notif question = {};
		if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &question) != 0) {
			continue;
		}
		seccomp_notif_resp response = {};
		response.id = question.id;
		response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
		if (static_cast<pid_t>(question.pid) == thread && ++count == nth) {
			response.flags = 0;
			response.error = -error;
		}
		ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
	}
}

} // namespace

void with_refused(const std::vector<int> &calls, int error, const std::function<void()> &step)
{
	bool installed = false;
	std::thread thread([&] {
		std::vector<sock_filter> filter = make_filter(calls, error);
		installed = install(filter);
		if (installed) {
			step();
		}
	});
	thread.join();
	if (!installed) {
		throw std::runtime_error("the kernel takes no seccomp filter");
	}
}

void with_processes_refused(const std::function<void()> &step)
{
	with_refused({SYS_clone, SYS_clone3, SYS_fork, SYS_vfork}, EAGAIN, step);
}

void with_nth_refused(int call, int nth, int error, const std::function<void()> &step)
{
	std::promise<std::pair<int, pid_t>> installed;
	std::thread thread([&] {
		const int listener = install_question(call);
		installed.set_value({listener, static_cast<pid_t>(syscall(SYS_gettid))});
		if (listener >= 0) {
			step();
		}
	});
	const auto [listener, caller] = installed.get_future().get();
	if (listener >= 0) {
		answer_questions(listener, caller, nth, error);
		close(listener);
	}
	thread.join();
	if (listener < 0) {
		throw std::runtime_error("the kernel takes no seccomp filter that asks");
	}
}

} // namespace router_test
