// SPDX-License-Identifier: ISC
//
// What an `update` request is answered with, and the texts of the update error
// codes. The update job sends it, at once or for a deferred request.
#pragma once

#include <cstdint>

#include "core/base/bus_and_loop.h"

namespace fwupdate
{

// The fixed text of an UpdateError; "No Error" for ERROR_NO_FILE, whose text
// belongs to `test`, and for a code that does not exist.
const char *update_error_text(std::int32_t code);

// Answers `request` with version and build time of the manifest, the request's
// force flag and update_context.result with its text: for failed downloads,
// checks and installations the last logged message, if there is one. Returns
// what ubus_send_reply returns.
int reply_update_result(ubus_request_data *request, bool force);

} // namespace fwupdate
