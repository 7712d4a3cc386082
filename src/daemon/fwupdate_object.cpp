// SPDX-License-Identifier: ISC
#include "daemon/fwupdate_object.h"

#include <cstdio>

#include "base/bus.h"
#include "daemon/state_method.h"
#include "daemon/update_method.h"
#include "discovery/check_method.h"
#include "verify/test_method.h"

namespace fwupdate
{

namespace
{

// The order is that of introspection.
const ubus_method methods[] = {
	UBUS_METHOD_NOARG("check", handle_check),
	UBUS_METHOD("update", handle_update, update_policy),
	UBUS_METHOD("test", handle_test, test_policy),
	UBUS_METHOD_NOARG("state", handle_state),
};

ubus_object_type object_type = UBUS_OBJECT_TYPE("fwupdate", methods);
ubus_object object;

constexpr int RECONNECT_WAIT = 500; // milliseconds
uloop_timeout reconnect_timer;

void connect_again()
{
	bus_generation++;
	if (ubus_reconnect(bus_connection, nullptr) != UBUS_STATUS_OK) {
		// The library may leave the number of a descriptor that it has closed, and would
		// close it once more: by then it may be the progress pipe's.
		bus_connection->sock.fd = -1;
		return;
	}
	// The bus may be gone again: the library does not say so in its result.
	if (!bus_connection->sock.eof) {
		ubus_add_uloop(bus_connection);
	}
}

bool is_connected()
{
	return bus_connection->sock.registered;
}

// The library puts its objects back itself, and forgets one that it could not put back.
void on_reconnect(uloop_timeout *timer)
{
	if (!is_connected()) {
		connect_again();
	}
	if (is_connected() && object.id == 0) {
		ubus_add_object(bus_connection, &object);
	}
	if (!is_connected() || object.id == 0) {
		uloop_timeout_set(timer, RECONNECT_WAIT);
	}
}

// Called more than once for one loss, also from within a call that waits for the bus. What the
// library has read from the lost connection is handled before the timer fires. What it has not
// read is lost, and so is everybody who waits for an answer to it.
void on_connection_lost(ubus_context *connection)
{
	uloop_fd_delete(&connection->sock);
	uloop_timeout_set(&reconnect_timer, RECONNECT_WAIT);
}

} // namespace

void serve_object()
{
	object.name = "fwupdate";
	object.type = &object_type;
	object.methods = object_type.methods;
	object.n_methods = object_type.n_methods;

	bus_connection->connection_lost = on_connection_lost;
	reconnect_timer.cb = on_reconnect;
	const int result = ubus_add_object(bus_connection, &object);
	if (result != 0) {
		std::fprintf(stderr, "Failed to add object: %s\n", ubus_strerror(result));
	}
	uloop_run_timeout(-1);
}

} // namespace fwupdate
