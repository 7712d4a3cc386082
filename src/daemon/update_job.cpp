// SPDX-License-Identifier: ISC
#include "daemon/update_job.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <unistd.h>

#include "base/bus.h"
#include "base/log.h"
#include "base/records.h"
#include "base/text.h"
#include "base/update_error.h"
#include "daemon/update_reply.h"
#include "firmware/download.h"
#include "verify/boot_partition.h"
#include "verify/image.h"

namespace fwupdate
{

namespace
{

constexpr int RETRY_WAIT = 1000; // milliseconds

// Two seconds for the answer to leave the router; the installer then runs on its own.
constexpr char INSTALL_COMMAND[] = "sleep 2; sysupgrade -F /tmp/fwupdate.bin > /dev/null 2>&1 &";
static_assert(std::string_view(INSTALL_COMMAND).find(DOWNLOADED_IMAGE) != std::string_view::npos);

UpdateJob &job = update_context.job;

void clear_job()
{
	job = {};
	job.watch.fd = -1;
}

// Ends the attempt that runs, if there is one: no timer, no pipe. Its worker notices
// by the next write into the closed pipe.
void end_attempt()
{
	uloop_timeout_cancel(&job.timer);
	if (job.watch.fd >= 0) {
		uloop_fd_delete(&job.watch);
		close(job.watch.fd);
		job.watch.fd = -1;
	}
}

// Counts one attempt as used; true when at least one is left.
bool use_attempt()
{
	if (job.attempts > std::numeric_limits<std::int32_t>::min()) {
		job.attempts--;
	}
	return job.attempts > 0;
}

// Begins an attempt: starts a worker and watches it, or waits when none could be started.
// False when that was the last attempt.
bool begin_attempt()
{
	job.watch.cb = on_progress;
	job.timer.cb = on_job_timeout;
	job.active = true;
	job.watch.fd = start_download(manifest_text(update_manifest.url),
				      manifest_text(update_manifest.archive),
				      manifest_text(update_manifest.file_name), job.timeout);
	if (job.watch.fd >= 0) {
		uloop_timeout_set(&job.timer, seconds_to_milliseconds(job.timeout));
		uloop_fd_add(&job.watch, ULOOP_READ);
		return true;
	}
	job.job_result = ERROR_DOWNLOAD;
	if (!use_attempt()) {
		return false;
	}
	uloop_timeout_set(&job.timer, RETRY_WAIT);
	return true;
}

// Nobody is answered when the connection was lost that the request came over.
void answer_deferred_request()
{
	if (job.generation != bus_generation) {
		return;
	}
	reply_update_result(&job.request, job.force);
	ubus_complete_deferred_request(bus_connection, &job.request, UBUS_STATUS_OK);
}

// The job has failed for good.
void finish_job()
{
	update_context.result = job.job_result;
	update_context.state = UpdateState::NONE;
	answer_deferred_request();
	std::remove(DOWNLOADED_IMAGE);
	clear_job();
}

// Starts a new attempt. The caller still waits for the answer. After a failure the job
// installs without the delay that the caller asked for. A query may have changed the
// manifest meanwhile: the attempt downloads what the manifest says now.
void restart_download()
{
	std::remove(DOWNLOADED_IMAGE);
	job.delay = 0;
	if (!begin_attempt()) {
		finish_job();
	}
}

// The attempt has failed, or the wait before a retry is over.
void retry_or_finish(std::int32_t result)
{
	job.job_result = result;
	end_attempt();
	if (use_attempt()) {
		restart_download();
	} else {
		finish_job();
	}
}

void begin_delay()
{
	use_attempt();
	job.timer.cb = on_install;
	job.install = true;
	update_context.state = UpdateState::WAIT_DELAY;
	uloop_timeout_set(&job.timer, seconds_to_milliseconds(job.delay));
}

// A boot partition that cannot be recorded stops only a job that has failed before: the
// image itself is good, and the first attempt is installed all the same.
void verify_download()
{
	end_attempt();
	const int code = verify_image(DOWNLOADED_IMAGE);
	if (code < 0) {
		log_message("%s [%d]", image_check_text(code), code);
		retry_or_finish(ERROR_IMAGE);
		return;
	}
	update_context.state = UpdateState::FIRMWARE_UPDATE;
	if (set_boot_partition(update_context.boot_partition) != 0) {
		job.job_result = NO_ERROR;
	} else {
		update_context.result = ERROR_WRITE;
		log_message("Can't set boot partition via fw_setenv");
	}
	if (job.job_result == NO_ERROR) {
		begin_delay();
	} else {
		retry_or_finish(job.job_result);
	}
}

// A size that was never announced is 0: such a download is never whole.
bool whole_file_received(const ProgressRecord &progress)
{
	return progress.total != 0 && progress.total == progress.received;
}

// Reads every record that the pipe holds, each read taken as one. False when a
// record says that the transfer failed.
bool read_progress()
{
	while (read(job.watch.fd, &job.progress, sizeof(job.progress)) > 0) {
		if (whole_file_received(job.progress)) {
			job.downloaded = true;
		}
		if (job.progress.status != 0) {
			return false;
		}
	}
	return true;
}

} // namespace

bool start_job(ubus_request_data *request, const UpdateArguments &arguments)
{
	clear_job();
	job.timeout = arguments.timeout;
	job.attempts = arguments.attempts;
	job.delay = arguments.delay;
	job.force = arguments.force;
	if (!begin_attempt()) {
		return false;
	}
	ubus_defer_request(bus_connection, request, &job.request);
	job.generation = bus_generation;
	return true;
}

void on_job_timeout(uloop_timeout * /*timer*/)
{
	// The wait before a retry ends here too, and is no time-out.
	if (job.job_result == NO_ERROR) {
		log_message("Unable to download firmware: timeout\n");
	}
	retry_or_finish(ERROR_DOWNLOAD);
}

void on_progress(uloop_fd *watch, unsigned int events)
{
	if ((events & ULOOP_READ) != 0 && !read_progress()) {
		retry_or_finish(ERROR_DOWNLOAD);
		return;
	}
	if (!watch->eof && !watch->error) {
		return;
	}
	if (job.downloaded) {
		verify_download();
		return;
	}
	// When an earlier attempt has failed, its result stands.
	retry_or_finish(job.job_result == NO_ERROR ? ERROR_DOWNLOAD : job.job_result);
}

void on_install(uloop_timeout * /*timer*/)
{
	update_context.result = job.job_result;
	answer_deferred_request();
	if (job.install && update_context.result == NO_ERROR) {
		if (std::system(INSTALL_COMMAND) < 0) {
			update_context.result = ERROR_WRITE;
			log_message("Can't run sysupgrade");
		}
	} else {
		std::remove(DOWNLOADED_IMAGE);
	}
	clear_job();
}

} // namespace fwupdate
