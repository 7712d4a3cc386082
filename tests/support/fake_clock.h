// SPDX-License-Identifier: ISC
// A clock of its own for one daemon and its workers: a library loaded before libc answers for the
// clocks. The kernel is not fooled (a timer that was set ends when it would have ended), and nobody
// else's time changes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace router_test
{

// Shared with the library through a file.
struct ClockControl {
	std::int64_t wall_offset; // seconds, added to the time of day
	std::int64_t speed;	  // seconds of the monotonic clock per second
};

class FakeClock
{
public:
	explicit FakeClock(std::int64_t speed = 1);
	~FakeClock();
	FakeClock(const FakeClock &) = delete;

	// For the environment of the daemon.
	static std::vector<std::string> settings();
	// Sets the time of day so many seconds ahead of the true one, from now on.
	void set_wall_clock(std::int64_t seconds_ahead);

private:
	ClockControl *control_;
};

} // namespace router_test
