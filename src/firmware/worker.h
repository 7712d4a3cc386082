// SPDX-License-Identifier: ISC
//
// The download worker: a process of its own, which start_download forks for one
// transfer. Both functions run in that process.
#pragma once

#include <cstdint>
#include <curl/curl.h>

#include "base/records.h"

namespace fwupdate
{

// The worker's state during its transfer.
struct ProgressTracker {
	std::int64_t last_second; // of the monotonic clock, when a record was last sent
	ProgressRecord record;	  // the record last sent
	std::int32_t descriptor;  // write end of the pipe
};

// Downloads `url` into the file `target`, reports through `progress_pipe` and ends
// the process: with status 0 after a final record, with 255 and no record when the
// file or the transfer could not be set up, and with 0 and neither record nor file
// when the daemon had closed its end of the pipe before. A file that failed is
// deleted, unless another worker has put a new one in its place meanwhile.
[[noreturn]] void run_worker(const char *url, const char *target, std::int32_t timeout,
			     int progress_pipe);

// libcurl's progress callback. Sends a record when a new second of the monotonic
// clock has begun, and whenever the two counts are equal: all announced bytes have
// arrived, or both are 0 because the server has said nothing yet. `user` points to
// the ProgressTracker. Returns 0, or -1 to end the transfer when nobody reads the
// pipe any more.
int report_progress(void *user, curl_off_t total, curl_off_t now, curl_off_t upload_total,
		    curl_off_t upload_now);

} // namespace fwupdate
