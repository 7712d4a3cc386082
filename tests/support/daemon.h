// SPDX-License-Identifier: ISC
// The daemon under test as a child: /usr/sbin/fwupdate, started as the router's init does, with
// its full path as argv[0]. Knows when it is ready (its object is on the bus) and how to end it.
#pragma once

#include <string>
#include <vector>

#include "support/bus.h"
#include "support/process.h"

namespace router_test
{

inline constexpr const char *daemon_path = "/usr/sbin/fwupdate";

class Daemon
{
public:
	// Starts it and waits for the object `fwupdate`; throws std::runtime_error, with what the
	// daemon printed, when it does not come. For a start that is meant to fail use Process.
	explicit Daemon(const std::vector<std::string> &arguments = {"--debug"},
			const std::vector<std::string> &settings = {});
	~Daemon(); // kills it when it still runs

	pid_t pid() const
	{
		return process_.pid();
	}
	bool running()
	{
		return process_.running();
	}
	Process &process()
	{
		return process_;
	}
	// SIGTERM and wait. 0 is the orderly end.
	ExitStatus stop();
	ExitStatus kill()
	{
		return process_.kill();
	}

	Reply check() const
	{
		return call("fwupdate", "check");
	}
	Reply state() const
	{
		return call("fwupdate", "state");
	}
	Reply update(const Fields &arguments = {}) const;
	Reply test(const Fields &arguments = {}) const;
	PendingCall start_update(const Fields &arguments = {}) const;
	// The state's name, asked now; or asked again until it is `name`.
	std::string state_name() const;
	bool wait_for_state(const std::string &name, milliseconds limit = wait_limit()) const;
	// Asks `state` until the progress table shows `received` bytes. False when the time is
	// over.
	bool wait_for_progress(std::int64_t received, milliseconds limit = wait_limit()) const;

	// Live child processes (download workers, shells), zombies not counted.
	std::vector<pid_t> workers() const;
	bool wait_for_workers(std::size_t count, milliseconds limit = wait_limit()) const;

private:
	Process process_;
};

} // namespace router_test
