// SPDX-License-Identifier: ISC
// The monotonic clock, for the tools that measure with it.
#pragma once

#include <cstdint>
#include <ctime>

inline std::int64_t nanoseconds_now()
{
	timespec clock = {};
	clock_gettime(CLOCK_MONOTONIC, &clock);
	return clock.tv_sec * 1000000000LL + clock.tv_nsec;
}

inline double seconds_now()
{
	return static_cast<double>(nanoseconds_now()) / 1e9;
}
