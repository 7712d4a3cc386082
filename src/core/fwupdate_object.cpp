// SPDX-License-Identifier: ISC
#include "core/fwupdate_object.h"

#include <cstdio>

#include "core/base/bus.h"
#include "core/state_method.h"
#include "core/update_job.h"
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

} // namespace

void serve_object()
{
	object.name = "fwupdate";
	object.type = &object_type;
	object.methods = object_type.methods;
	object.n_methods = object_type.n_methods;

	const int result = ubus_add_object(bus_connection, &object);
	if (result != 0) {
		std::fprintf(stderr, "Failed to add object: %s\n", ubus_strerror(result));
	}
	uloop_run_timeout(-1);
}

} // namespace fwupdate
