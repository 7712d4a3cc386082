// SPDX-License-Identifier: ISC
#include "firmware/download.h"

#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "base/log.h"
#include "base/records.h"
#include "base/shell.h"
#include "base/text.h"
#include "firmware/worker.h"
#include "verify/boot_partition.h"

namespace fwupdate
{

namespace
{

constexpr std::size_t FREE_SPACE_SIZE = 12; // decimal digits and a terminator

// Free bytes of /tmp; false when they cannot be told.
bool measure_free_space(std::uint32_t &bytes)
{
	char text[FREE_SPACE_SIZE];
	run_probe("df /tmp | grep tmpfs | awk '{ printf \"%d\",int($4*1024) }'", text, sizeof(text),
		  "Error on reading tmpfs\n");
	bytes = static_cast<std::uint32_t>(parse_decimal(text));
	return text[0] != '\0';
}

bool ensure_boot_partition()
{
	if (update_context.boot_partition[0] != '\0' || find_boot_partition() != 0) {
		return true;
	}
	log_message("Error, couldn't get boot partition\n");
	return false;
}

// The file's own size is not known yet: what the partition can take at most must
// fit. A partition of unknown size is let through.
bool partition_fits(std::uint32_t free_space)
{
	const auto size =
		static_cast<std::uint32_t>(get_partition_size(update_context.boot_partition));
	if (size <= free_space) {
		return true;
	}
	log_message("Error, not enough memory to load firmware!\n");
	return false;
}

// The file lives in RAM: make room, keep a reserve, and rather restart than let the
// kernel pick a process to end.
void prepare_memory()
{
	run_command("sync && echo 3 > /proc/sys/vm/drop_caches");
	run_command("echo 1024 > /proc/sys/vm/min_free_kbytes");
	run_command("echo 1 > /proc/sys/vm/panic_on_oom");
}

// The read end of the pipe to a new worker, or -1.
int fork_worker(const char *url, const char *target, std::int32_t timeout)
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0) {
		log_message("Error, couldn't open pipe!\n");
		return -1;
	}
	const pid_t worker = fork();
	if (worker == 0) {
		close(ends[0]);
		run_worker(url, target, timeout, ends[1]);
	}
	close(ends[1]);
	if (worker < 0) {
		log_message("Error, couldn't fork!\n");
		close(ends[0]);
		return -1;
	}
	return ends[0];
}

} // namespace

int start_download(const char *url, const char *archive, const char * /*file_name*/,
		   std::int32_t timeout)
{
	const char *target = std::strcmp(archive, "1") == 0 ? DOWNLOADED_ARCHIVE : DOWNLOADED_IMAGE;
	std::uint32_t free_space = 0;

	if (!measure_free_space(free_space)) {
		return -1;
	}
	if (!ensure_boot_partition()) {
		return -1;
	}
	if (!partition_fits(free_space)) {
		return -1;
	}
	prepare_memory();
	update_context.state = UpdateState::FIRMWARE_CONNECT;

	const int progress_pipe = fork_worker(url, target, timeout);
	if (progress_pipe < 0) {
		log_message("Error, couldn't get CURL pipe\n");
	}
	return progress_pipe;
}

} // namespace fwupdate
