// SPDX-License-Identifier: ISC
// What the `ubus` command can do, one function per subcommand. The program parses the
// options, connects, and reports the status that these return; they print results only.
#pragma once

#include <chrono>
#include <optional>
#include <span>

#include "bus_headers.h"

namespace ubus_command
{

struct Options {
	std::optional<std::chrono::seconds> timeout;
	bool simple = false;  // one line, names only, no reason of a failure
	bool verbose = false; // with ids and methods
};

// The words after the subcommand; each ends in a null byte.
using Arguments = std::span<char *const>;

// Each returns an enum ubus_msg_status, or wrong_usage when the arguments are not as
// many as it takes.
constexpr int wrong_usage = -1;

int list(ubus_context &bus, const Options &options, Arguments arguments);
int call(ubus_context &bus, const Options &options, Arguments arguments);
int send(ubus_context &bus, const Options &options, Arguments arguments);

// Prints events until the time is over, the program is told to end, or the broker goes.
int listen(ubus_context &bus, const Options &options, Arguments arguments);

// Returns when all of the named objects have been on the bus.
int wait_for(ubus_context &bus, const Options &options, Arguments arguments);

} // namespace ubus_command
