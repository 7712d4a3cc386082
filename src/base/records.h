// SPDX-License-Identifier: ISC
//
// The records that the whole daemon shares: where it stands (UpdateState), what
// it is doing (UpdateContext), what the update server offered (UpdateManifest)
// and what the download worker reports (ProgressRecord). All are static, zero at
// start, touched on the event loop's thread only, and live as long as the
// process. They hold no behaviour; who writes a field is said beside it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bus_and_loop.h"

namespace fwupdate
{

// The last stage that the daemon as a whole has reached; not the update job's
// own phase. The values are visible on the bus by name.
enum class UpdateState : std::uint32_t {
	NONE = 0,	      // start; check begins; test ends; a job has failed
	NETWORK_GET = 1,      // a server query begins
	NETWORK_CHECK = 2,    // never set, a name only
	XML_CONNECT = 3,      // the manifest request is under way, or failed early
	XML_GET = 4,	      // the manifest request failed while receiving
	XML_PARSE = 5,	      // values are taken out of the manifest, or that failed
	XML_DONE = 6,	      // the last query succeeded and stands
	FIRMWARE_CONNECT = 7, // a download worker is about to start, or runs
	FIRMWARE_GET = 8,     // never set, a name only
	WAIT_DELAY = 9,	      // the image passed; also after a successful job
	FIRMWARE_CHECK = 10,  // an image is being checked
	FIRMWARE_UPDATE = 11, // the boot partition is being recorded
};

// The unit of the pipe between download worker and daemon: 12 bytes in the
// device's byte order, each sent with one write.
struct ProgressRecord {
	std::uint32_t total;	// bytes to come as the server announced them; 0 = unknown
	std::uint32_t received; // bytes so far; both are the low 32 bits of the counts
	std::int32_t status;	// 0, or why the transfer failed (in a final record only)
};
static_assert(sizeof(ProgressRecord) == 12);

inline constexpr std::size_t MESSAGE_SIZE = 256;
inline constexpr std::size_t PARTITION_SIZE = 32;

// The fields of one update job. They are cleared to zero all together when a
// job ends. Written by the job alone.
//
// `watch.fd` is -1 while no pipe is open, and also after a job has ended. Only before
// the first job it is 0, like everything else.
struct UpdateJob {
	ubus_request_data request; // the caller's deferred request, a whole copy
	std::uint32_t generation;  // bus_generation when it was deferred
	uloop_timeout timer;	   // the job's one timer: time-out, retry wait or delay
	uloop_fd watch;		   // read end of the worker's progress pipe
	ProgressRecord progress;   // the last record read
	std::int32_t job_result;   // the job's own code: NO_ERROR, ERROR_DOWNLOAD, ERROR_IMAGE
	std::int32_t timeout;	   // seconds that one download attempt may take
	std::int32_t attempts;	   // attempts left
	std::int32_t delay;	   // seconds between a good check and the installation
	bool force;		   // the request's own force flag
	bool active;		   // a job is running
	bool downloaded;	   // a record has reported the whole file
	bool install;		   // the image passed; installation comes next
};

struct UpdateContext {
	UpdateState state;
	char message[MESSAGE_SIZE];	     // last text logged; emptied by update and check
	std::int32_t result;		     // UpdateError of the last request
	std::int32_t need_update;	     // last query: -1 failed, 0 nothing newer, 1 newer
	char boot_partition[PARTITION_SIZE]; // to be recorded after an update; jobs leave it
	UpdateJob job;
};

// The update server's answer. A value of a field's full size leaves no room for
// a terminator, and whoever reads the field reads on into the next one: use
// manifest_text() for every field that can fill up. Elements that are missing in
// an answer keep the value of an earlier one.
struct UpdateManifest {
	char file_name[64];	 // the image inside an archive
	char archive[4];	 // "1": the download is a ZIP archive; 2 bytes are kept
	char force_update[4];	 // "1": install other builds too, not only newer; 2 bytes
	char release_notes[512]; // for the user
	char version[20];
	char buildtime[12]; // decimal number, deliberately cut to 9 characters
	char url[256];	    // of the firmware
	char end;	    // always zero: ends a `url` that fills its field
};
static_assert(sizeof(UpdateManifest) == 64 + 4 + 4 + 512 + 20 + 12 + 256 + 1);

extern UpdateContext update_context;
extern UpdateManifest update_manifest;

// The text of a field of update_manifest, up to the first zero byte: a field that fills its
// array runs on into the next.
const char *manifest_text(const char *field);

} // namespace fwupdate
