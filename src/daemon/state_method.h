// SPDX-License-Identifier: ISC
//
// The bus method `state`: how far the daemon is. Changes nothing.
#pragma once

#include "base/bus_and_loop.h"
#include "base/records.h"

namespace fwupdate
{

// The name of a state as the bus shows it; "UNKNOWN" for a value that is none.
const char *update_state_name(UpdateState state);

// Answers with the state's name, the last logged message and, while a download
// of known size runs, its two byte counts. Returns 0.
int handle_state(ubus_context *connection, ubus_object *object, ubus_request_data *request,
		 const char *method, blob_attr *message);

} // namespace fwupdate
