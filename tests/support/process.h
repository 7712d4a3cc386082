// SPDX-License-Identifier: ISC
// A program run as a child: its words, environment, standard input, what it printed and how it
// ended. The child inherits no descriptor but its three standard ones. A Process that goes out of
// scope kills and collects its child.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "support/wait.h"

namespace router_test
{

struct Command {
	std::vector<std::string> words;		// words[0] is argv[0] and, when `program` is
						// empty, the program too (looked up in PATH)
	std::string program = {};		// another program than argv[0] names
	std::vector<std::string> settings = {}; // NAME=VALUE, added to our environment
	std::string input = {};			// the child's standard input
};

struct ExitStatus {
	bool ended = false; // false: still running when the wait was over
	int code = -1;	    // exit status, -1 when a signal ended it
	int signal = 0;	    // the signal that ended it, else 0
	bool success() const
	{
		return ended && code == 0;
	}
};

class Process
{
public:
	// Starts the program; throws std::runtime_error when it cannot be executed.
	explicit Process(const Command &command);
	~Process();
	Process(const Process &) = delete;
	Process &operator=(const Process &) = delete;

	pid_t pid() const
	{
		return pid_;
	}
	// Becomes readable when the child ends: for a poll of one's own.
	int pid_descriptor() const
	{
		return pid_descriptor_;
	}
	bool running();
	// Waits for the end; `ended` is false when the time was over first. May be called again.
	ExitStatus wait(milliseconds limit = wait_limit());
	void signal(int number) const; // does nothing once the child has been collected
	// SIGKILL, then wait.
	ExitStatus kill();

	// What was printed so far on standard output and standard error.
	const std::string &output();
	const std::string &errors();
	// Waits until the text was printed; false when time is over or the streams have ended.
	bool wait_for_output(std::string_view text, milliseconds limit = wait_limit());
	bool wait_for_errors(std::string_view text, milliseconds limit = wait_limit());

private:
	struct Stream {
		int descriptor = -1;
		std::string text = {};
	};
	bool drain(Stream &stream);
	bool wait_for_text(Stream &stream, std::string_view text, milliseconds limit);
	void collect();

	pid_t pid_ = -1;
	int pid_descriptor_ = -1;
	Stream output_;
	Stream errors_;
	ExitStatus status_;
};

struct RunResult {
	ExitStatus status;
	std::string output;
	std::string errors;
};

// Runs a program to its end. `shell` runs the text by /bin/sh -c.
RunResult run(const std::vector<std::string> &words, std::string_view input = {});
RunResult shell(const std::string &text);

// The full path of a program found in PATH or a system folder; empty when there is none. A name
// with a slash is returned as it is.
std::string find_program(const std::string &name);

} // namespace router_test
