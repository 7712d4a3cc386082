// SPDX-License-Identifier: ISC
#include "support/bus_connection.h"

#include <cerrno>
#include <stdexcept>

namespace router_test
{

Context connect_to_broker()
{
	Context context;
	do {
		errno = 0;
		context.reset(ubus_connect(nullptr));
	} while (!context && errno == EINTR); // a child that stops or ends interrupts it
	if (context) {
		// The library's own answer to a lost connection is to end the event loop.
		context->connection_lost = [](ubus_context *) {
		};
	}
	return context;
}

Context connect_or_throw()
{
	Context context = connect_to_broker();
	if (!context) {
		throw std::runtime_error("no broker on the bus");
	}
	return context;
}

bool take_messages(ubus_context *context, const Deadline &deadline)
{
	if (!wait_readable(context->sock.fd, deadline)) {
		return false;
	}
	context->sock.cb(&context->sock, ULOOP_READ);
	return true;
}

} // namespace router_test
