// SPDX-License-Identifier: ISC
// Looks into the kernel's process table (/realproc inside the simulated router, /proc elsewhere):
// what a process has open, whom it started, what is left running. Values are of the moment; a
// process that is gone has no descriptors and no children.
#pragma once

#include <map>
#include <set>
#include <string>
#include <sys/types.h>
#include <vector>

namespace router_test
{

struct ProcessEntry {
	pid_t pid = 0;
	pid_t parent = 0;
	char state = '?';      // R, S, D, T, Z ... as in proc(5)
	std::string name = {}; // at most 15 characters
};

std::vector<ProcessEntry> all_processes();
std::vector<ProcessEntry> children_of(pid_t pid); // zombies included
bool is_alive(pid_t pid);			  // listed and no zombie

// Descriptor number -> what it refers to ("/tmp/file", "socket:[123]", "pipe:[77]").
std::map<int, std::string> open_descriptors(pid_t pid);
// The files that a process has in its address space ("/lib/libc.so r-xp 26000"), its programs and
// libraries included. Heap, stack and other memory without a file come and go with the allocator.
std::set<std::string> mapped_files(pid_t pid);
// The size of its address space in KiB, 0 for a process that is gone.
long mapped_kib(pid_t pid);

} // namespace router_test
