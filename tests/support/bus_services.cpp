// SPDX-License-Identifier: ISC
#include "support/bus_services.h"

#include <csignal>
#include <stdexcept>

#include "support/bus.h"

namespace router_test
{
namespace
{

void stop(std::unique_ptr<Process> &process)
{
	if (!process) {
		return;
	}
	process->signal(SIGCONT);
	process->signal(SIGTERM);
	process->wait();
	process.reset();
}

} // namespace

BusServices::BusServices(Which which)
{
	start_broker();
	if (which == Which::all) {
		start_routerd();
	}
}

BusServices::~BusServices()
{
	stop_routerd();
	stop_broker();
}

void BusServices::start_broker()
{
	broker_ = std::make_unique<Process>(Command{.words = {"ubusd"}});
	// The socket's file is there before the broker listens on it, so no file event tells.
	bool up = eventually([this] { return broker_is_up() || !broker_->running(); });
	if (!up || !broker_->running()) {
		throw std::runtime_error("ubusd does not come up: " + broker_->errors());
	}
}

void BusServices::stop_broker()
{
	stop(broker_);
}

void BusServices::kill_broker()
{
	broker_->kill();
	broker_.reset();
}

void BusServices::pause_broker() const
{
	broker_->signal(SIGSTOP);
}

void BusServices::start_routerd()
{
	routerd_ = std::make_unique<Process>(Command{.words = {"routerd"}});
	for (const char *path : {"system", "network.interface.wan"}) {
		const char *method = path == std::string_view("system") ? "board" : "status";
		// An answer, not just the object: until its loop runs, SIGTERM would be lost on it.
		if (!wait_for_object(path) || call(path, method).status == Reply::no_answer) {
			throw std::runtime_error("routerd does not serve " + std::string(path) +
						 ": " + routerd_->errors());
		}
	}
}

void BusServices::stop_routerd()
{
	stop(routerd_);
}

} // namespace router_test
