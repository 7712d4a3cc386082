// SPDX-License-Identifier: ISC
// Many callers on the bus at the same time, each with a connection of its own.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/bus.h"

namespace router_test
{

struct BusCall {
	std::string method;
	Fields arguments = {};
};

struct TimedReply {
	std::string method;
	Reply reply;
	std::chrono::microseconds took; // from the connection to the end of the answer
};

// `callers` callers of the object `path`, all of them at once: each makes all of `calls`, the next
// one when the one before has been answered, and each begins with another one. `answered` is called
// after each answer. Returns when all calls are answered or nothing came for `limit`: what was not
// answered then has the status Reply::no_answer.
std::vector<TimedReply> call_at_once(std::size_t callers, const std::string &path,
				     const std::vector<BusCall> &calls,
				     const std::function<void()> &answered,
				     milliseconds limit = wait_limit());

} // namespace router_test
