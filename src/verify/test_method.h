// SPDX-License-Identifier: ISC
//
// The bus method `test`: checks a firmware file that is on the device already,
// installs nothing, and answers at once.
#pragma once

#include <cstddef>

#include "base/bus_and_loop.h"

namespace fwupdate
{

inline constexpr std::size_t TEST_ARGUMENTS = 2;
extern const blobmsg_policy test_policy[TEST_ARGUMENTS];

// Arguments: `file` (path), `partition` (1 to 31 characters; kept for the next
// update that names none). Does not care whether an update job runs, and rewrites
// the state, the result and the partition that they share. Returns 0, or
// UBUS_STATUS_INVALID_ARGUMENT without an answer for a bad partition, which is
// looked at before the file.
int handle_test(ubus_context *connection, ubus_object *object, ubus_request_data *request,
		const char *method, blob_attr *message);

} // namespace fwupdate
