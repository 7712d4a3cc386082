// SPDX-License-Identifier: ISC
//
// The daemon's only way to the router's tools: shell commands whose first line
// of output is a value (run_probe) or whose exit status is the answer
// (run_command). Also the one line reader, which a stale EINTR cannot trap.
// Every call blocks until the command has ended.
#pragma once

#include <cstddef>
#include <cstdio>

namespace fwupdate
{

// Runs `command` and stores the first line of its output, line feed included,
// in `field`: at most size - 1 bytes, the rest of the field zero. The exit status
// does not matter. When the command cannot be started or prints nothing, the
// field is empty and `failure` is logged.
void run_probe(const char *command, char *field, std::size_t size, const char *failure);

// What a command of which only the exit status counts came to.
enum class CommandResult {
	SUCCEEDED, // exit status 0; also a command that a signal ended
	FAILED,	   // another exit status
	NOT_RUN,   // the system could not start it, or lost track of how it ended
};

CommandResult run_command(const char *command);

// Reads one line of at most size - 1 bytes, terminated, into `line`. A read that a
// signal interrupts goes on where it was, and loses nothing of the line. The end of
// the file and an error end the line, too: false when not a byte of it was read.
bool read_line(std::FILE *stream, char *line, std::size_t size);

} // namespace fwupdate
