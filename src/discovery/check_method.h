// SPDX-License-Identifier: ISC
//
// The bus method `check`: asks the update server there and then and tells both
// the caller and, as the event "fwupdate.avaliable", everybody else.
#pragma once

#include "base/bus_and_loop.h"

namespace fwupdate
{

// Takes no arguments and always returns 0: a query that failed is reported in the
// answer. Does not care whether an update job runs. A query that succeeded is
// what the next `update` goes by.
int handle_check(ubus_context *connection, ubus_object *object, ubus_request_data *request,
		 const char *method, blob_attr *message);

} // namespace fwupdate
