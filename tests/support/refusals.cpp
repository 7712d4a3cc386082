// SPDX-License-Identifier: ISC
#include "support/refusals.h"

#include <cerrno>
#include <cstddef>
#include <future>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace router_test
{

namespace
{

// Load the call's number; for each of the calls: equal? take the action; at last: allow.
std::vector<sock_filter> make_filter(const std::vector<int> &calls, unsigned action)
{
	std::vector<sock_filter> filter = {
		BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
	for (const int call : calls) {
		filter.push_back(
			BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call), 0, 1));
		filter.push_back(BPF_STMT(BPF_RET | BPF_K, action));
	}
	filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
	return filter;
}

// For the calling thread, for good. What seccomp(2) returns, -1 when it is refused.
int install(std::vector<sock_filter> filter, unsigned flags)
{
	sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
	if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
		return -1;
	}
	return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program));
}

void require(bool installed)
{
	if (!installed) {
		throw std::runtime_error("the kernel takes no seccomp filter");
	}
}

// What the step throws, get() throws to the caller.
std::future<void> in_own_thread(const std::function<void()> &step)
{
	return std::async(std::launch::async, step);
}

} // namespace

// The newer processors have the general calls only.
const std::vector<int> process_calls = {
	SYS_clone,
	SYS_clone3,
#ifdef SYS_fork
	SYS_fork,
#endif
#ifdef SYS_vfork
	SYS_vfork,
#endif
};
const std::vector<int> pipe_calls = {
	SYS_pipe2,
#ifdef SYS_pipe
	SYS_pipe,
#endif
};

void with_refused(const std::vector<int> &calls, int error, const std::function<void()> &step)
{
	in_own_thread([&] {
		const unsigned refusal = SECCOMP_RET_ERRNO | static_cast<unsigned>(error);
		require(install(make_filter(calls, refusal), 0) == 0);
		step();
	}).get();
}

void with_processes_refused(const std::function<void()> &step)
{
	with_refused(process_calls, EAGAIN, step);
}

LateRefusals::LateRefusals() : stop_(eventfd(0, EFD_CLOEXEC))
{
}

LateRefusals::LateRefusals(const std::vector<int> &calls, const std::function<void()> &start)
    : LateRefusals()
{
	std::promise<int> listener;
	std::promise<void> answered;
	std::future<void> starting = in_own_thread([&] {
		const int installed = install(make_filter(calls, SECCOMP_RET_USER_NOTIF),
					      SECCOMP_FILTER_FLAG_NEW_LISTENER);
		listener.set_value(installed);
		// A fork that waits for an answer holds locks of the C library that starting
		// the answering thread takes.
		answered.get_future().wait();
		if (installed >= 0) {
			start();
		}
	});
	listener_ = listener.get_future().get();
	if (listener_ >= 0) {
		answering_ = std::thread([this] { answer_all(); });
	}
	answered.set_value();
	starting.wait();
	require(listener_ >= 0);
	starting.get();
}

LateRefusals::~LateRefusals()
{
	eventfd_write(stop_, 1);
	if (answering_.joinable()) {
		answering_.join();
	}
	close(listener_);
	close(stop_);
}

void LateRefusals::refuse(pid_t pid, int error, std::size_t after)
{
	std::lock_guard lock(mutex_);
	decision_ = {pid, error, after};
}

void LateRefusals::allow()
{
	refuse(0, 0);
}

LateRefusals::Decision LateRefusals::decide(pid_t pid)
{
	std::lock_guard lock(mutex_);
	if (pid != decision_.pid) {
		return {};
	}
	if (decision_.after > 0) {
		decision_.after--;
		return {};
	}
	return decision_;
}

// Allocates nothing: the process may be in the middle of a fork.
void LateRefusals::answer_all()
{
	pollfd watched[] = {{.fd = listener_, .events = POLLIN, .revents = 0},
			    {.fd = stop_, .events = POLLIN, .revents = 0}};
	while (poll(watched, 2, -1) > 0 && watched[1].revents == 0 &&
	       (watched[0].revents & POLLIN) != 0) {
		seccomp_notif request = {};
		if (ioctl(listener_, SECCOMP_IOCTL_NOTIF_RECV, &request) != 0) {
			continue;
		}
		const Decision decision = decide(static_cast<pid_t>(request.pid));
		seccomp_notif_resp response = {.id = request.id, .val = 0, .error = 0, .flags = 0};
		if (decision.error != 0) {
			response.error = -decision.error;
		} else {
			response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
		}
		ioctl(listener_, SECCOMP_IOCTL_NOTIF_SEND, &response);
	}
}

} // namespace router_test
