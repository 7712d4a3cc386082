// SPDX-License-Identifier: ISC
//
// The bus method `update` and the job that it starts. One timer and one watch on
// the download worker's progress pipe carry the job through the event loop; its
// fields are update_context.job, which nothing else writes.
//
//             update
//   idle ----------------> downloading <--------------+
//     ^                       |   |                   |
//     |          whole file   |   | failure, time-out |
//     |                       v   v                   |
//     |                 verifying  attempts left? ----+--> retry wait (1 s)
//     |                   |   ^       | no            ^         |
//     |              good |   |bad    v               |         |
//     |                   v   +--> finish_job         +---------+
//     |                 delay         |
//     |   on_install      |           |
//     +-------------------+-----------+
//
// A start that fails with no attempt left answers at once and leaves the job
// active: until the daemon restarts, every later update that is due is refused.
// `check` and `test` may run meanwhile; the job never looks at the daemon's state.
#pragma once

#include <cstddef>

#include "core/base/bus_and_loop.h"

namespace fwupdate
{

inline constexpr std::size_t UPDATE_ARGUMENTS = 5;
extern const blobmsg_policy update_policy[UPDATE_ARGUMENTS];

// The bus method. Arguments: `force` (the number 1 as text installs whatever the
// server says), `partition` (1 to 31 characters), `timeout` (seconds of one
// download attempt, 30), `attempts` (1), `delay` (seconds before the installation,
// 0). Asks the server unless the last query still stands; answers at once when
// there is nothing to do, and otherwise when the job has ended. Returns 0, or
// UBUS_STATUS_INVALID_ARGUMENT without an answer for a bad partition.
int handle_update(ubus_context *connection, ubus_object *object, ubus_request_data *request,
		  const char *method, blob_attr *message);

// Loop callback: an attempt took longer than `timeout`, or the wait before a
// retry is over.
void on_job_timeout(uloop_timeout *timer);

// Loop callback: the worker's pipe has records, or has ended.
void on_progress(uloop_fd *watch, unsigned int events);

// Loop callback: the delay is over. Answers the caller, then starts the installer.
void on_install(uloop_timeout *timer);

} // namespace fwupdate
