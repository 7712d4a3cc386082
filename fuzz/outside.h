// SPDX-License-Identifier: ISC
//
// All that the daemon's code meets outside of itself, for the fuzz targets: the router's tools,
// files, the update server and the bus. Nothing is real. The code is the daemon's own, but CMake
// renames every call in it that leads out
// (`system` becomes `outside_system`), outside.cpp answers these, and check_reach refuses code that
// could reach anything else. So no fuzz program runs a command or touches a file, whatever it
// finds: fw_setenv and the kernel's settings are texts here. The update job is left out: job_tests
// has every sequence of its events.
//
// An input begins with reset_daemon() and ends with check_daemon().
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace fuzz
{

// What a command of popen prints, when `part` occurs in it.
struct Tool {
	const char *part;
	std::string_view output;
};

// How a command of system ends, as waitpid tells it.
inline constexpr int EXIT_STATUS_1 = 1 << 8;
inline constexpr int KILLED = 9;
inline constexpr int NOT_RUN = -1;

// At first: a router on which everything is in order, and a server with nothing to say. The
// texts belong to the target and must live as long as the input.
struct Outside {
	std::span<const Tool> tools = {}; // looked through first, then those of a sound router
	int fwtool_ending = 0;
	int setenv_ending = 0;
	bool has_boot_tools = true; // fw_printenv and fw_setenv are there

	bool has_mtd = true;
	std::string_view mtd;	// /proc/mtd
	bool has_image = true;	// any other file can be opened
	std::string_view image; // its content

	// The update server's answer in the pieces in which it arrives.
	std::span<const std::string_view> answer = {};
	bool transfer_breaks = false; // after the last of them

	// What the daemon has done.
	std::size_t replies = 0;
	std::size_t events = 0;
};

extern Outside outside;

// The daemon as it is after its start: records zero, no document, no job. Outside: as above.
void reset_daemon();

// What holds after every input: texts end inside their fields, and what the daemon opened is
// closed.
void check_daemon();

} // namespace fuzz
