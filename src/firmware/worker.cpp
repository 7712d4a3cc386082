// SPDX-License-Identifier: ISC
#include "firmware/worker.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/bus.h"
#include "base/log.h"

namespace fwupdate
{

namespace
{

constexpr std::int32_t LONGEST_CONNECT = 10; // seconds
constexpr std::int32_t EMPTY_FILE = 18;	     // status of a transfer that stored nothing
constexpr int SETUP_FAILED = -1;	     // exit status 255

bool send_record(int descriptor, ProgressRecord record)
{
	return write(descriptor, &record, sizeof(record)) == static_cast<ssize_t>(sizeof(record));
}

// Lets go of what belongs to the daemon. While a worker holds the bus connection, the
// bus does not notice that the daemon has ended. While the loop's signal handlers are
// installed, SIGTERM does not end a worker: they only tell the loop, which does not
// run here.
void leave_daemon()
{
	uloop_done();
	// Leaving the loop may take the disposition back that the daemon has given SIGPIPE.
	std::signal(SIGPIPE, SIG_IGN);
	if (bus_connection != nullptr) {
		close(bus_connection->sock.fd);
	}
}

// True when the daemon has closed its end of the pipe: a slow start, and a successor
// may be at work already.
bool reader_is_gone(int progress_pipe)
{
	// Asked for no event, poll tells of nothing but the missing reader.
	pollfd end = {progress_pipe, 0, 0};
	return poll(&end, 1, 0) > 0;
}

// A predecessor that was given up may still be writing the older file: it keeps that one, and
// this worker begins a file of its own. A worker that has been given up itself ends here: the
// older file may be its successor's. (One that is given up between the look and the deed costs
// its successor an attempt.)
std::FILE *open_target(const char *target, int progress_pipe)
{
	struct stat older;
	if (reader_is_gone(progress_pipe)) {
		std::exit(0);
	}
	if (lstat(target, &older) == 0 && S_ISREG(older.st_mode)) {
		unlink(target);
	}
	return std::fopen(target, "wb");
}

void set_options(CURL *curl, const char *url, std::FILE *file, std::int32_t timeout,
		 ProgressTracker &tracker)
{
	curl_easy_setopt(curl, CURLOPT_URL, url);
	curl_easy_setopt(curl, CURLOPT_WRITEDATA, file);
	if (timeout > 0) {
		curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT,
				 long{std::min(timeout, LONGEST_CONNECT)});
		curl_easy_setopt(curl, CURLOPT_TIMEOUT, long{timeout});
	}
	curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
	curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
	curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, report_progress);
	curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &tracker);
	curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
}

// What came of the transfer; logs a failure. `position` is that of the file.
std::int32_t transfer_status(CURLcode code, long position)
{
	if (code != CURLE_OK) {
		log_message("Unable to download firmware: %s\n", curl_easy_strerror(code));
		return static_cast<std::int32_t>(code);
	}
	if (position <= 0) {
		log_message("Unable to download firmware: empty file\n");
		return EMPTY_FILE;
	}
	return 0;
}

// Deletes the file, unless a successor has put its own in the place of it: this one then has
// no name any more.
void remove_own_file(std::FILE *file, const char *target)
{
	struct stat own = {};
	if (fstat(fileno(file), &own) == 0 && own.st_nlink > 0) {
		std::remove(target);
	}
}

} // namespace

void run_worker(const char *url, const char *target, std::int32_t timeout, int progress_pipe)
{
	ProgressTracker tracker = {};
	tracker.descriptor = progress_pipe;
	leave_daemon();

	std::FILE *file = open_target(target, progress_pipe);
	if (file == nullptr) {
		log_message("Error, couldn't open %s\n", target);
		std::exit(SETUP_FAILED);
	}
	CURL *curl = curl_easy_init();
	if (curl == nullptr) {
		log_message("Error, couldn't init curl\n");
		std::exit(SETUP_FAILED);
	}
	set_options(curl, url, file, timeout, tracker);
	const CURLcode code = curl_easy_perform(curl);
	const std::int32_t status = transfer_status(code, std::ftell(file));
	curl_easy_cleanup(curl);
	if (status != 0) {
		remove_own_file(file, target);
	}
	std::fclose(file);

	// In the last record both counts are equal, also when the transfer failed: then
	// its status says so.
	tracker.record.received = tracker.record.total;
	tracker.record.status = status;
	send_record(progress_pipe, tracker.record);
	close(progress_pipe);
	std::exit(0);
}

int report_progress(void *user, curl_off_t total, curl_off_t now, curl_off_t /*upload_total*/,
		    curl_off_t /*upload_now*/)
{
	auto &tracker = *static_cast<ProgressTracker *>(user);
	timespec clock = {};
	clock_gettime(CLOCK_MONOTONIC, &clock);
	const std::int64_t second = clock.tv_sec;
	if (tracker.last_second >= second && now != total) {
		return 0;
	}
	tracker.last_second = second;
	tracker.record.total = static_cast<std::uint32_t>(total);
	tracker.record.received = static_cast<std::uint32_t>(now);
	tracker.record.status = 0;
	if (!send_record(tracker.descriptor, tracker.record)) {
		log_message("Error, can't write to pipe fd!\n");
		return -1;
	}
	return 0;
}

} // namespace fwupdate
