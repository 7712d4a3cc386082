// SPDX-License-Identifier: ISC
//
// All that the daemon's code meets outside of itself, for the fuzz targets that run it: the
// router's tools, files, the update server, the worker's pipe, the event loop and the bus. Nothing
// is real. The code is the daemon's own, but CMake renames every call in it that leads out
// (`system` becomes `outside_system`), outside.cpp answers these, and check_reach refuses code that
// could reach anything else. So no fuzz program runs a command or touches a file, whatever it
// finds: sysupgrade, fw_setenv and the kernel's settings are texts here.
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
	bool can_fork = true;	    // pipes and processes are to be had

	bool has_mtd = true;
	std::string_view mtd;	// /proc/mtd
	bool has_image = true;	// any other file can be opened
	std::string_view image; // its content

	// The update server's answer in the pieces in which it arrives.
	std::span<const std::string_view> answer = {};
	bool transfer_breaks = false; // after the last of them

	// What the pipe from the worker holds now, and whether the worker has ended.
	std::string_view pipe = {};
	bool pipe_ended = false;

	// What the daemon has done.
	std::size_t replies = 0;
	std::size_t events = 0;
	std::size_t completed = 0; // deferred requests
	std::size_t installed = 0; // sysupgrade was called
	bool timer_armed = false;
	bool watch_armed = false;
};

extern Outside outside;

// The daemon as it is after its start: records zero, no document, no job. Outside: as above.
void reset_daemon();

// What holds after every input: texts end inside their fields, and what the daemon opened is
// closed, but for the pipe of a job that runs.
void check_daemon();

} // namespace fuzz
