// SPDX-License-Identifier: ISC
// Makes the kernel refuse what it hardly ever refuses: a process, a pipe, a file's status. It does
// so to one thread (and what that thread starts) for the length of one step. Every function returns
// when the step is over, and throws what the step throws; std::runtime_error when the kernel has
// no seccomp.
#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace router_test
{

// The system calls by which a C library starts a process, and by which it makes a pipe.
extern const std::vector<int> process_calls;
extern const std::vector<int> pipe_calls;

// So many pipes does popen(3) make: musl needs one of its own to learn how the start went.
#ifdef __GLIBC__
constexpr std::size_t pipes_of_a_command = 1;
#else
constexpr std::size_t pipes_of_a_command = 2;
#endif

// Runs `step` in a thread of its own in which each of these system calls (SYS_...) fails with
// `error`.
void with_refused(const std::vector<int> &calls, int error, const std::function<void()> &step);

// The same, with what fork(2), system(3) and popen(3) rest on.
void with_processes_refused(const std::function<void()> &step);

// The same for a program that `start` starts, and later: its calls are refused from `refuse` to
// `allow`. To be kept longer than the program: without its end the calls come to nothing.
class LateRefusals
{
public:
	LateRefusals(const std::vector<int> &calls, const std::function<void()> &start);
	~LateRefusals();
	LateRefusals(const LateRefusals &) = delete;

	// Only the calls of that process itself, and only after the first so many.
	void refuse(pid_t pid, int error, std::size_t after = 0);
	void allow();

private:
	LateRefusals(); // refuses nothing; from here on the destructor runs, whatever start throws
	struct Decision {
		pid_t pid = 0; // nobody
		int error = 0;
		std::size_t after = 0;
	};
	void answer_all();
	Decision decide(pid_t pid);

	int listener_ = -1;
	int stop_ = -1;
	std::mutex mutex_;
	Decision decision_;
	std::thread answering_;
};

} // namespace router_test
