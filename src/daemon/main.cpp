// SPDX-License-Identifier: ISC
#include <csignal>
#include <cstring>

#include "base/bus.h"
#include "base/log.h"
#include "daemon/fwupdate_object.h"
#include "daemon/instance.h"

using namespace fwupdate;

namespace
{

void read_arguments(int argc, char **argv)
{
	for (int i = 1; i < argc; i++) {
		if (std::strcmp(argv[i], "--debug") == 0) {
			debug_mode = 1;
		}
	}
}

} // namespace

int main(int argc, char **argv)
{
	// Before the arguments are read: a second instance is turned away in silence. On
	// old kernels a program can be started without a name (argc 0). pidof then lists
	// nothing, and the daemon does not start.
	if (is_already_running(argc > 0 ? argv[0] : "") != 0) {
		return 0;
	}
	read_arguments(argc, argv);

	uloop_init();
	// The download worker inherits this: its write into a pipe that was closed
	// must fail, not kill it.
	std::signal(SIGPIPE, SIG_IGN);

	bus_connection = ubus_connect(nullptr);
	if (bus_connection == nullptr) {
		log_message("Failed to connect to ubus\n");
		return -1;
	}
	ubus_add_uloop(bus_connection);
	serve_object();

	ubus_free(bus_connection);
	uloop_done();
	return 0;
}
