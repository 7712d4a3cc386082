// SPDX-License-Identifier: ISC
//
// The job that an `update` request starts. One timer and one watch on the download
// worker's progress pipe carry it through the event loop; its fields are
// update_context.job, which nothing else writes.
//
//   phase        event                                    next
//   idle         update is due, the start succeeds        downloading
//   idle         update is due, the start fails           retry wait, or stuck
//   not idle     update                                   the same; answers at once
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

#include <cstdint>

#include "base/bus_and_loop.h"

namespace fwupdate
{

// What an `update` request asks for.
struct UpdateArguments {
	const char *partition; // to be recorded; null: none was named. Lives as the request does
	std::int32_t timeout;  // seconds that one download attempt may take
	std::int32_t attempts;
	std::int32_t delay; // seconds between a good check and the installation
	bool force;	    // install whatever the server says
};

// Starts the job for an update that is due, while none is active. The request is deferred:
// it is answered when the job has ended. False, with the request as it was, when the start
// failed and no attempt is left.
bool start_job(ubus_request_data *request, const UpdateArguments &arguments);

// Loop callback: an attempt took longer than `timeout`, or the wait before a
// retry is over.
void on_job_timeout(uloop_timeout *timer);

// Loop callback: the worker's pipe has records, or has ended.
void on_progress(uloop_fd *watch, unsigned int events);

// Loop callback: the delay is over. Answers the caller, then starts the installer.
void on_install(uloop_timeout *timer);

} // namespace fwupdate
