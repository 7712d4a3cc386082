// SPDX-License-Identifier: ISC
#include "support/refusals.h"

#include <cerrno>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stdexcept>
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

} // namespace router_test
