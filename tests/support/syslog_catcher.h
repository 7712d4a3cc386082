// SPDX-License-Identifier: ISC
// Stands at /dev/log in the place of the router's log daemon and keeps every line that is sent,
// in order. Only for use inside the simulated router. A thread reads, so that no sender is ever
// held up by a full queue.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include "support/wait.h"

namespace router_test
{

struct LogLine {
	int priority = -1; // facility | level, as sent: LOG_USER | LOG_INFO is 14
	std::string ident = {};
	pid_t pid = 0;	       // 0 when the sender gave none
	std::string text = {}; // without a line feed at its end, which musl adds
};

class SyslogCatcher
{
public:
	// Throws std::runtime_error when /dev/log cannot be bound.
	SyslogCatcher();
	~SyslogCatcher();
	SyslogCatcher(const SyslogCatcher &) = delete;

	// Everything sent so far: what a process logged before it was waited for is in it.
	std::vector<LogLine> lines() const;
	std::vector<std::string> texts() const;
	std::size_t count(std::string_view text) const; // lines whose text contains it
	bool contains(std::string_view text) const
	{
		return count(text) > 0;
	}
	// The first line whose text contains `text`; nothing when none came in time.
	std::optional<LogLine> wait_for(std::string_view text,
					milliseconds limit = wait_limit()) const;
	void clear();

private:
	struct State;
	std::unique_ptr<State> state_;
};

} // namespace router_test
