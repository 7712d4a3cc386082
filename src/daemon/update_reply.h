// SPDX-License-Identifier: ISC
//
// What an `update` request is answered with. The update job sends it, at once or
// for a deferred request.
#pragma once

#include "base/bus_and_loop.h"

namespace fwupdate
{

// Answers `request` with version and build time of the manifest, the request's
// force flag and update_context.result with its text: for failed downloads,
// checks and installations the last logged message, if there is one. Returns
// what ubus_send_reply returns.
int reply_update_result(ubus_request_data *request, bool force);

} // namespace fwupdate
