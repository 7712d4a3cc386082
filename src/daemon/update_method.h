// SPDX-License-Identifier: ISC
//
// The bus method `update`: decides whether an update is due, and starts the job.
#pragma once

#include <cstddef>

#include "base/bus_and_loop.h"

namespace fwupdate
{

inline constexpr std::size_t UPDATE_ARGUMENTS = 5;
extern const blobmsg_policy update_policy[UPDATE_ARGUMENTS];

// Arguments: `force` (the number 1 as text installs whatever the server says),
// `partition` (1 to 31 characters), `timeout` (seconds of one download attempt, 30),
// `attempts` (1), `delay` (seconds before the installation, 0). Asks the server unless
// the last query still stands; answers at once when there is nothing to do, and
// otherwise when the job has ended. Returns 0, or UBUS_STATUS_INVALID_ARGUMENT without
// an answer for a bad partition.
int handle_update(ubus_context *connection, ubus_object *object, ubus_request_data *request,
		  const char *method, blob_attr *message);

} // namespace fwupdate
