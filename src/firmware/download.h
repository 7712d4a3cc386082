// SPDX-License-Identifier: ISC
//
// The download of the firmware into /tmp, in a forked worker process, so that the
// event loop stays free. Called by the update job for every attempt. The worker
// lives for one transfer and tells everything through a pipe of ProgressRecords:
// some while it runs, one at the end; a worker that could not begin sends none.
//
//   download.cpp  start_download, in the daemon
//   worker.cpp    the worker process
#pragma once

#include <cstdint>

namespace fwupdate
{

inline constexpr char DOWNLOADED_IMAGE[] = "/tmp/fwupdate.bin";
inline constexpr char DOWNLOADED_ARCHIVE[] = "/tmp/fwupdate.zip";

// Starts a worker that downloads `url` to DOWNLOADED_ARCHIVE when `archive` is
// exactly "1", else to DOWNLOADED_IMAGE; `file_name` is not read. `timeout` is the
// time for the whole transfer in seconds, none when 0 or less. First makes sure
// that a boot partition is chosen and that its size, the largest image possible,
// fits into the free space of /tmp, and tunes the kernel for a large file in RAM.
//
// Returns the read end of the worker's pipe, which the caller watches and closes,
// or -1, with the cause logged, when no worker was started. The worker is reaped
// by the event loop; its exit status says nothing.
int start_download(const char *url, const char *archive, const char *file_name,
		   std::int32_t timeout);

} // namespace fwupdate
