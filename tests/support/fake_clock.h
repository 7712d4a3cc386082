// SPDX-License-Identifier: ISC
// A clock of its own for one daemon and its workers: a library loaded before libc answers for the
// clocks. The kernel is not fooled (a timer that was set ends when it would have ended), and nobody
// else's time changes. While the clock stands still, whatever waits in the daemon for a time waits
// for the test: no machine is too slow for it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace router_test
{

// Shared with the library through a file.
struct ClockControl {
	std::int64_t wall_offset; // seconds, added to the time of day
	std::int64_t speed;	  // seconds of the monotonic clock per second
	std::int64_t stopped_at;  // nanoseconds that the monotonic clock shows; 0: it goes
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
	// The monotonic clock stands still, and moves only by `advance`, until it goes again: then
	// it shows the time that it would show without the stop. A daemon that sleeps notices
	// either at its next event, or when the time has truly passed for which it sleeps.
	void stop();
	void advance(std::chrono::milliseconds time);
	void go_on();

private:
	ClockControl *control_;
};

} // namespace router_test
