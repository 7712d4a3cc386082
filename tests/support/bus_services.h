// SPDX-License-Identifier: ISC
// The router's own neighbours of the daemon: the broker `ubusd` and `routerd`, which serves the
// objects `system` and `network.interface.wan` from /etc/router/board.json and wan.json. Found in
// PATH (and /sbin, /usr/sbin); stopped in the order reverse to the start.
#pragma once

#include <memory>

#include "support/process.h"

namespace router_test
{

class BusServices
{
public:
	enum class Which { broker_only, all };
	// Starts and waits until the broker accepts and the objects are there; throws
	// std::runtime_error when that does not happen in time.
	explicit BusServices(Which which = Which::all);
	~BusServices();

	// SIGTERM and wait. A stopped service can be started again.
	void stop_broker();
	void start_broker();
	// SIGKILL and wait.
	void kill_broker();
	// Freezes the broker: it takes no message and answers none. Thawed by its end only.
	void pause_broker() const;
	void stop_routerd();
	void start_routerd();

private:
	std::unique_ptr<Process> broker_;
	std::unique_ptr<Process> routerd_;
};

} // namespace router_test
