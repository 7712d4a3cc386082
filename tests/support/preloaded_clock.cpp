// SPDX-License-Identifier: ISC
// Loaded into a program by LD_PRELOAD: stands before libc's clocks. See fake_clock.h.
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include "support/fake_clock.h"

namespace
{

constexpr std::int64_t nanoseconds = 1000000000;

// Where seconds outgrew a long, the call has another number.
#ifdef SYS_clock_gettime
constexpr long clock_call = SYS_clock_gettime;
#else
constexpr long clock_call = SYS_clock_gettime64;
#endif

const volatile router_test::ClockControl *control()
{
	static const void *mapping = [] {
		const char *path = std::getenv("FWUPDATE_TEST_CLOCK");
		const int file = open(path != nullptr ? path : "", O_RDONLY | O_CLOEXEC);
		void *mapped = mmap(nullptr, sizeof(router_test::ClockControl), PROT_READ,
				    MAP_SHARED, file, 0);
		close(file);
		return mapped;
	}();
	return mapping == MAP_FAILED
		       ? nullptr
		       : static_cast<const volatile router_test::ClockControl *>(mapping);
}

// Mapped before the program begins: afterwards nothing changes in its address space. The tools that
// it runs do without: theirs may be another architecture, and their linker would complain.
[[gnu::constructor]] void map_control()
{
	control();
	unsetenv("LD_PRELOAD");
}

bool tells_time_of_day(clockid_t clock)
{
	return clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
}

bool tells_time_since_start(clockid_t clock)
{
	return clock == CLOCK_MONOTONIC || clock == CLOCK_MONOTONIC_RAW ||
	       clock == CLOCK_MONOTONIC_COARSE || clock == CLOCK_BOOTTIME;
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec *time) noexcept
{
	const long result = syscall(clock_call, clock, time);
	const auto *changes = control();
	if (result != 0 || changes == nullptr) {
		return static_cast<int>(result);
	}
	if (tells_time_of_day(clock)) {
		time->tv_sec += static_cast<time_t>(changes->wall_offset);
	}
	const std::int64_t stopped_at = changes->stopped_at;
	if (tells_time_since_start(clock) && stopped_at != 0) {
		time->tv_sec = static_cast<time_t>(stopped_at / nanoseconds);
		time->tv_nsec = static_cast<long>(stopped_at % nanoseconds);
	} else if (tells_time_since_start(clock)) {
		const std::int64_t total = time->tv_nsec * changes->speed;
		time->tv_sec =
			static_cast<time_t>(time->tv_sec * changes->speed + total / nanoseconds);
		time->tv_nsec = static_cast<long>(total % nanoseconds);
	}
	return 0;
}

int gettimeofday(timeval *time, void * /*zone*/) noexcept
{
	timespec now = {};
	clock_gettime(CLOCK_REALTIME, &now);
	time->tv_sec = now.tv_sec;
	time->tv_usec = now.tv_nsec / 1000;
	return 0;
}

time_t time(time_t *result) noexcept
{
	timespec now = {};
	clock_gettime(CLOCK_REALTIME, &now);
	if (result != nullptr) {
		*result = now.tv_sec;
	}
	return now.tv_sec;
}
}
