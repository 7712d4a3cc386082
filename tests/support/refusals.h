// SPDX-License-Identifier: ISC
// Makes the kernel refuse what it hardly ever refuses: a process, a pipe, a file, its status. It
// does so to one thread (and what that thread starts) for the length of one step. Every function
// returns when the step is over; all but the last throw std::runtime_error when the kernel has no
// seccomp.
#pragma once

#include <functional>
#include <vector>

namespace router_test
{

// Runs `step` in a thread of its own in which each of these system calls (SYS_...) fails with
// `error`.
void with_refused(const std::vector<int> &calls, int error, const std::function<void()> &step);

// The same, with what fork(2), system(3) and popen(3) rest on.
void with_processes_refused(const std::function<void()> &step);

// The same, with what popen(3) needs and system(3) does not.
void with_pipes_refused(const std::function<void()> &step);

// The same for the second file that the step opens; all others are opened.
void with_second_open_refused(const std::function<void()> &step);

// Runs `step` in a thread of its own for which a file's mode counts, although it is root's.
void without_capabilities(const std::function<void()> &step);

} // namespace router_test
