// SPDX-License-Identifier: ISC
#include "firmware/worker.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/base/bus.h"
#include "core/base/log.h"

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

// A predecessor that was given up may still be writing the older file: it keeps
// that one, and this worker begins a file of its own.
std::FILE *open_target(const char *target)
{
	struct stat older;
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

// False when a successor has put a file of its own in the place of this one.
bool path_is_own_file(const char *path, std::FILE *file)
{
	struct stat own = {};
	struct stat found = {};
	fstat(fileno(file), &own);
	return stat(path, &found) == 0 && found.st_dev == own.st_dev && found.st_ino == own.st_ino;
}

// Closes the file and, when the transfer failed, deletes it: while it is open no other
// file can get its inode number.
void close_target(std::FILE *file, const char *target, std::int32_t status)
{
	if (status != 0 && path_is_own_file(target, file)) {
		std::remove(target);
	}
	std::fclose(file);
}

} // namespace

void run_worker(const char *url, const char *target, std::int32_t timeout, int progress_pipe)
{
	ProgressTracker tracker = {};
	tracker.descriptor = progress_pipe;
	leave_daemon();

	if (reader_is_gone(progress_pipe)) {
		std::exit(0);
	}
	std::FILE *file = open_target(target);
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
	close_target(file, target, status);

	// In the last record both counts are equal, also when the transfer failed: then
	// its status says so.
	tracker.record.received = tracker.record.total;
	tracker.record.status = status;
	send_record(progress_pipe, tracker.record);
	close(progress_pipe);
	std::exit(0);
}

int report_progress(void *tracker, curl_off_t total, curl_off_t now, curl_off_t /*upload_total*/,
		    curl_off_t /*upload_now*/)
{
	auto &state = *static_cast<ProgressTracker *>(tracker);
	timespec clock = {};
	clock_gettime(CLOCK_MONOTONIC, &clock);
	const std::int64_t second = clock.tv_sec;
	if (state.last_second >= second && now != total) {
		return 0;
	}
	state.last_second = second;
	state.record.total = static_cast<std::uint32_t>(total);
	state.record.received = static_cast<std::uint32_t>(now);
	state.record.status = 0;
	if (!send_record(state.descriptor, state.record)) {
		log_message("Error, can't write to pipe fd!\n");
		return -1;
	}
	return 0;
}

} // namespace fwupdate
