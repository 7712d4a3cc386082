// SPDX-License-Identifier: ISC
// Bounded waiting. Every wait in the tests goes through here and waits for an event: a descriptor
// that becomes readable, a file that changes. The bound comes from the environment variable
// FWUPDATE_TEST_WAIT_MS (default 10000), so that slow runs (sanitizers, valgrind) can raise it.
#pragma once

#include <chrono>
#include <functional>
#include <string>

namespace router_test
{

using std::chrono::milliseconds;

// The bound of every wait that is not given one of its own.
milliseconds wait_limit();

class Deadline
{
public:
	explicit Deadline(milliseconds from_now = wait_limit());
	// Milliseconds left, for poll(2): 0 once the deadline has passed, never negative.
	int remaining() const;
	bool passed() const;

private:
	std::chrono::steady_clock::time_point at_;
};

// True when `descriptor` became readable (or was hung up) in time.
bool wait_readable(int descriptor, const Deadline &deadline);

// Waits until `reached` holds, looking again whenever something changes in the folder of `path`
// (inotify). The folder must exist. False when the time is over.
bool wait_for_change(const std::string &path, const std::function<bool()> &reached,
		     milliseconds limit = wait_limit());

// True when the path exists, or stops existing, in time.
bool wait_until_exists(const std::string &path, milliseconds limit = wait_limit());
bool wait_until_gone(const std::string &path, milliseconds limit = wait_limit());

// For what no event announces (a process table, another process's records): looks again every few
// milliseconds until `reached` holds. Prefer anything else in this library.
bool eventually(const std::function<bool()> &reached, milliseconds limit = wait_limit());

} // namespace router_test
