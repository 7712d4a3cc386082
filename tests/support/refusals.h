// SPDX-License-Identifier: ISC
// Makes the kernel refuse what it hardly ever refuses: a process, a pipe, a file's status. It does
// so to one thread (and what that thread starts) for the length of one step.
#pragma once

#include <functional>
#include <vector>

namespace router_test
{

// Runs `step` in a thread of its own in which each of these system calls (SYS_...) fails with
// `error`. Returns when the step is over; throws std::runtime_error when the kernel has no seccomp.
void with_refused(const std::vector<int> &calls, int error, const std::function<void()> &step);

// The same, with what fork(2), system(3) and popen(3) rest on.
void with_processes_refused(const std::function<void()> &step);

} // namespace router_test
