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
#include "discovery/manifest.h"
#include "firmware/download.h"
#include "verify/boot_partition.h"
#include "verify/image.h"

namespace fwupdate
{

const blobmsg_policy update_policy[UPDATE_ARGUMENTS] = {
	{"force", BLOBMSG_TYPE_STRING},	 {"partition", BLOBMSG_TYPE_STRING},
	{"timeout", BLOBMSG_TYPE_INT32}, {"attempts", BLOBMSG_TYPE_INT32},
	{"delay", BLOBMSG_TYPE_INT32},
};

namespace
{

// The order of update_policy.
enum { ARGUMENT_FORCE, ARGUMENT_PARTITION, ARGUMENT_TIMEOUT, ARGUMENT_ATTEMPTS, ARGUMENT_DELAY };

constexpr std::int32_t DEFAULT_TIMEOUT = 30; // seconds
constexpr std::int32_t DEFAULT_ATTEMPTS = 1;
constexpr std::int32_t DEFAULT_DELAY = 0; // seconds
constexpr int RETRY_WAIT = 1000;	  // milliseconds

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

// Starts a worker and watches it. False when none could be started.
bool start_attempt()
{
	job.watch.fd = start_download(manifest_text(update_manifest.url),
				      manifest_text(update_manifest.archive),
				      manifest_text(update_manifest.file_name), job.timeout);
	if (job.watch.fd < 0) {
		return false;
	}
	uloop_timeout_set(&job.timer, seconds_to_milliseconds(job.timeout));
	uloop_fd_add(&job.watch, ULOOP_READ);
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
	job.watch.cb = on_progress;
	job.timer.cb = on_job_timeout;
	job.active = true;
	if (start_attempt()) {
		return;
	}
	job.job_result = ERROR_DOWNLOAD;
	if (use_attempt()) {
		uloop_timeout_set(&job.timer, RETRY_WAIT);
	} else {
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
	job.timer.cb = on_install;
	job.install = true;
	update_context.state = UpdateState::WAIT_DELAY;
	uloop_timeout_set(&job.timer, seconds_to_milliseconds(job.delay));
}

void refuse_image(int code)
{
	log_message("%s [%d]", image_check_text(code), code);
	retry_or_finish(ERROR_IMAGE);
}

// A boot partition that cannot be recorded stops only a job that has failed
// before: the image itself is good, and the first attempt is installed all the same.
void boot_partition_failed()
{
	update_context.result = ERROR_WRITE;
	log_message("Can't set boot partition via fw_setenv");
	const bool attempts_left = use_attempt();
	if (job.job_result == NO_ERROR) {
		begin_delay();
	} else if (attempts_left) {
		restart_download();
	} else {
		finish_job();
	}
}

void verify_download()
{
	end_attempt();
	const int code = verify_image(DOWNLOADED_IMAGE);
	if (code < 0) {
		refuse_image(code);
		return;
	}
	update_context.state = UpdateState::FIRMWARE_UPDATE;
	if (set_boot_partition(update_context.boot_partition) == 0) {
		boot_partition_failed();
		return;
	}
	job.job_result = NO_ERROR;
	use_attempt();
	begin_delay();
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

std::int32_t number_or(blob_attr *value, std::int32_t fallback)
{
	return value != nullptr ? static_cast<std::int32_t>(blobmsg_get_u32(value)) : fallback;
}

bool is_forced(blob_attr *value)
{
	return value != nullptr && parse_decimal(blobmsg_get_string(value)) == 1;
}

// What query_update_server returned, by the query that stands or a new one.
int latest_query_result()
{
	if (update_context.state != UpdateState::XML_DONE) {
		update_context.need_update = query_update_server();
	}
	return update_context.need_update;
}

int answer_now(ubus_request_data *request, bool force, UpdateError result)
{
	update_context.result = result;
	reply_update_result(request, force);
	return UBUS_STATUS_OK;
}

void begin_job(blob_attr *const (&arguments)[UPDATE_ARGUMENTS], bool force)
{
	clear_job();
	job.delay = number_or(arguments[ARGUMENT_DELAY], DEFAULT_DELAY);
	job.watch.cb = on_progress;
	job.timer.cb = on_job_timeout;
	job.attempts = number_or(arguments[ARGUMENT_ATTEMPTS], DEFAULT_ATTEMPTS);
	job.force = force;
	job.timeout = number_or(arguments[ARGUMENT_TIMEOUT], DEFAULT_TIMEOUT);
	job.active = true;
}

} // namespace

int handle_update(ubus_context * /*connection*/, ubus_object * /*object*/,
		  ubus_request_data *request, const char * /*method*/, blob_attr *message)
{
	blob_attr *arguments[UPDATE_ARGUMENTS];

	update_context.result = NO_ERROR;
	update_context.message[0] = '\0';
	parse_arguments(update_policy, arguments, message);

	const bool force = is_forced(arguments[ARGUMENT_FORCE]);
	// Taken before anything is decided: it counts for a running job as well.
	if (!choose_boot_partition(text_or_null(arguments[ARGUMENT_PARTITION]))) {
		return UBUS_STATUS_INVALID_ARGUMENT;
	}

	const int offer = latest_query_result();
	if (offer < 0) {
		return answer_now(request, force, ERROR_CHECK);
	}
	if (offer != 1 && !force) {
		return answer_now(request, force, NO_ERROR);
	}
	if (job.active) {
		return answer_now(request, force, ERROR_ALREADY_UPDATING);
	}

	begin_job(arguments, force);
	if (!start_attempt()) {
		job.job_result = ERROR_DOWNLOAD;
		if (!use_attempt()) {
			// The job stays active: see the header.
			return answer_now(request, force, ERROR_DOWNLOAD);
		}
		uloop_timeout_set(&job.timer, RETRY_WAIT);
	}
	ubus_defer_request(bus_connection, request, &job.request);
	job.generation = bus_generation;
	return UBUS_STATUS_OK;
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
	// What an earlier attempt came to stays.
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
