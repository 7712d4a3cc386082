// SPDX-License-Identifier: ISC
// Fixtures. RouterFixture: a clean router without services, for unit tests. RouterTest: the router
// with broker, routerd, log and update server; the daemon starts when the test says so. Both put
// every changed file back and remove what a test left in /tmp.
#pragma once

#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "support/bus_services.h"
#include "support/daemon.h"
#include "support/gate.h"
#include "support/http_server.h"
#include "support/images.h"
#include "support/manifest.h"
#include "support/process_table.h"
#include "support/router_files.h"
#include "support/syslog_catcher.h"

namespace router_test
{

class RouterFixture : public testing::Test
{
protected:
	void SetUp() override;
	void TearDown() override;

	// Processes of this router, and names in /tmp, that were not there when the test began.
	std::vector<ProcessEntry> new_processes() const;
	std::vector<std::string> new_files() const;

	RouterFiles files;

private:
	void remove_new_processes() const;

	std::vector<std::string> files_before_;
	std::vector<pid_t> processes_before_;
};

class RouterTest : public RouterFixture
{
protected:
	void SetUp() override;
	// Fails the test when the daemon died, does not end in order by SIGTERM, holds more
	// descriptors, children or mapped files than after its start, or when something is left in
	// /tmp or running; see what a test may leave, below.
	void TearDown() override;

	// Starts the daemon (with --debug unless told otherwise); again after it has ended.
	// `settings` go to its environment.
	Daemon &start_daemon(const std::vector<std::string> &arguments = {"--debug"},
			     const std::vector<std::string> &settings = {});
	// Throws std::logic_error when it was not started, or its start failed.
	Daemon &daemon();
	// Serves the manifest at /update.xml, its url pointing to /firmware.bin unless it names
	// one.
	void offer(Manifest manifest = {});
	// The same with the firmware.
	void offer(const HttpAnswer &firmware, Manifest manifest = {});
	// A firmware that this router accepts.
	std::string good_image(std::size_t payload_size = 4096) const;

	// To be called while the daemon idles: no children, no zombies, and the same descriptors
	// and mapped files as after its start.
	void expect_nothing_leaked() const;

	// What a test may leave behind on purpose. Set before the end of the test.
	bool may_leave_image = false;	// /tmp/fwupdate* (a successful update)
	bool may_leave_workers = false; // a worker that was given up and still waits for its server
	bool may_crash = false;		// the test ends the daemon itself

	SyslogCatcher syslog;
	std::unique_ptr<BusServices> bus;
	HttpServer server;

private:
	void check_end();
	void check_router();
	bool worker_is_left() const;

	std::unique_ptr<Daemon> daemon_;
	std::multiset<std::string> descriptors_at_start_;
	std::set<std::string> mapped_at_start_;
};

// The model (product name, upper case) and build date of the simulated router, read from
// /etc/router/board.json.
std::string router_model();
std::string router_builddate();

} // namespace router_test
