// SPDX-License-Identifier: ISC
// Makes the kernel refuse what it hardly ever refuses, to the calling thread only: start a thread
// for the step that is to fail. For the tests of this folder.
#pragma once

#include <cerrno>
#include <cstddef>
#include <functional>
#include <future>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace router_test
{

// From now on a file's mode counts for this thread, although it is root's.
inline void drop_capabilities()
{
	__user_cap_header_struct header = {.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
	__user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
	syscall(SYS_capset, &header, none);
}

// Installs a filter of this thread; returns what seccomp(2) returns.
template<std::size_t COUNT> int filter_system_calls(sock_filter (&filter)[COUNT], unsigned flags)
{
	sock_fprog program = {.len = COUNT, .filter = filter};
	prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
	return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &program));
}

// From now on this thread's fstat fails with EIO.
inline void refuse_file_status()
{
	sock_filter filter[] = {
		BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
		BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fstat, 2, 0),
		BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_newfstatat, 1, 0),
		BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
		BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
	};
	filter_system_calls(filter, 0);
}

// Answers each openat of the filtered thread: the second is refused, the others go on. Returns
// when that thread has ended.
inline void refuse_second_open(int listener)
{
	pollfd watched = {.fd = listener, .events = POLLIN, .revents = 0};
	for (int count = 1; poll(&watched, 1, -1) > 0 && (watched.revents & POLLIN) != 0; count++) {
		seccomp_notif request = {};
		if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &request) != 0) {
			continue;
		}
		seccomp_notif_resp response = {.id = request.id, .val = 0, .error = 0, .flags = 0};
		if (count == 2) {
			response.error = -EMFILE;
		} else {
			response.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
		}
		ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
	}
}

// What the step returns when the second file that it opens is refused.
inline int with_second_open_refused(const std::function<int()> &step)
{
	std::promise<int> listener;
	int result = 1;
	std::thread thread([&] {
		sock_filter filter[] = {
			BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
			BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 1),
			BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
			BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
		};
		listener.set_value(filter_system_calls(filter, SECCOMP_FILTER_FLAG_NEW_LISTENER));
		result = step();
	});
	const int descriptor = listener.get_future().get();
	if (descriptor >= 0) {
		refuse_second_open(descriptor);
		close(descriptor);
	}
	thread.join();
	return result;
}

} // namespace router_test
