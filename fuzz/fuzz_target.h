// SPDX-License-Identifier: ISC
// What every fuzz target defines; libFuzzer calls it, and so does replay.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// Always returns 0. A finding is a crash, a sanitizer's report or a failed `require`.
// NOLINTNEXTLINE(readability-identifier-naming): libFuzzer's choice
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// What must hold whatever the input is. Stays in optimized builds, where assert does not.
inline void require(bool holds, const char *what)
{
	if (!holds) {
		std::fprintf(stderr, "does not hold: %s\n", what);
		std::abort();
	}
}
