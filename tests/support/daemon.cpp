// SPDX-License-Identifier: ISC
#include "support/daemon.h"

#include <array>
#include <csignal>
#include <poll.h>
#include <stdexcept>

#include "support/process_table.h"

namespace router_test
{
namespace
{

constexpr const char *object = "fwupdate";

Command daemon_command(const std::vector<std::string> &arguments,
		       const std::vector<std::string> &settings)
{
	Command command{.words = {daemon_path}, .settings = settings};
	command.words.insert(command.words.end(), arguments.begin(), arguments.end());
	return command;
}

} // namespace

Daemon::Daemon(const std::vector<std::string> &arguments, const std::vector<std::string> &settings)
    : process_(daemon_command(arguments, settings))
{
	Deadline deadline;
	EventListener listener("ubus.object.add");
	while (!find_object(object)) {
		std::array<pollfd, 2> watched = {{{process_.pid_descriptor(), POLLIN, 0},
						  {listener.descriptor(), POLLIN, 0}}};
		poll(watched.data(), watched.size(), deadline.remaining());
		if (!process_.running() || deadline.passed()) {
			throw std::runtime_error("the daemon did not register its object: " +
						 process_.output() + process_.errors());
		}
		listener.arrived();
	}
	// The object is there before the loop runs, and SIGTERM is lost on it until then.
	if (state().status == Reply::no_answer) {
		throw std::runtime_error("the daemon does not answer");
	}
}

Daemon::~Daemon()
{
	process_.kill();
}

ExitStatus Daemon::stop()
{
	process_.signal(SIGTERM);
	return process_.wait();
}

Reply Daemon::update(const Fields &arguments) const
{
	return call(object, "update", arguments);
}

Reply Daemon::test(const Fields &arguments) const
{
	return call(object, "test", arguments);
}

PendingCall Daemon::start_update(const Fields &arguments) const
{
	return {object, "update", arguments};
}

std::string Daemon::state_name() const
{
	return text_of(state().fields, "state");
}

bool Daemon::wait_for_state(const std::string &name, milliseconds limit) const
{
	return eventually([&] { return state_name() == name; }, limit);
}

bool Daemon::wait_for_progress(std::int64_t received, milliseconds limit) const
{
	auto reached = [&] {
		Fields fields = state().fields;
		const Field *progress = find_field(fields, "progress");
		const Field *now =
			progress != nullptr ? find_field(progress->members, "now") : nullptr;
		return now != nullptr && now->number == received;
	};
	return eventually(reached, limit);
}

std::vector<pid_t> Daemon::workers() const
{
	std::vector<pid_t> alive;
	for (const ProcessEntry &child : children_of(pid())) {
		if (child.state != 'Z') {
			alive.push_back(child.pid);
		}
	}
	return alive;
}

bool Daemon::wait_for_workers(std::size_t count, milliseconds limit) const
{
	return eventually([&] { return workers().size() == count; }, limit);
}

} // namespace router_test
