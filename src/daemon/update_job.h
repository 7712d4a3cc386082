// SPDX-License-Identifier: ISC
//
// The bus method `update` and the job that it starts. One timer and one watch on
// the download worker's progress pipe carry the job through the event loop; its
// fields are update_context.job, which nothing else writes.
//
//   phase        event                                    next
//   idle         update is due, the start succeeds        downloading
//   idle         update is due, the start fails           retry wait, or stuck
//   not idle     update                                   the same; refused
//   downloading  record                                   downloading
//   downloading  record of a failure                      again
//   downloading  time-out                                 again
//   downloading  end of pipe, file not whole              again
//   downloading  end of pipe, image bad                   again
//   downloading  end of pipe, image good, recorded        delay
//   downloading  end of pipe, image good, not recorded    delay, or again
//   retry wait   one second is over                       again
//   delay        over                                     idle; answers, then installs
//
//   again        no attempt left                          idle; answers, deletes the image
//   again        attempts left, the start succeeds        downloading
//   again        attempts left, the start fails           retry wait, or idle
//
// What leads to "again" uses up an attempt, and so does each start that fails: with none
// left it has the second outcome. "Recorded" means the boot partition. When it cannot be
// recorded, the image is installed all the same, unless an earlier attempt of the job
// failed.
//
// A start that fails with no attempt left answers at once and leaves the job
// active: until the daemon restarts, every later update that is due is refused.
// `check` and `test` may run meanwhile; the job never looks at the daemon's state.
#pragma once

#include <cstddef>

#include "base/bus_and_loop.h"

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
