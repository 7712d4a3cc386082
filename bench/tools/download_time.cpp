// SPDX-License-Identifier: ISC
// Runs the daemon's download worker once, as the daemon forks it, and prints the seconds until its
// pipe was closed and the most memory it had resident, in KiB. What is timed: fork, a new file, the
// transfer, and the closing of the file. The daemon goes on when the pipe is closed; it does not
// wait for the worker's exit.
//
//	download_time URL TARGET
//
// The worker is the daemon's code, linked in; what surrounds it (free space, kernel settings) is
// left out, because the other side of the comparison, curl, does nothing of the kind.
#include <cstdio>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "clock.h"
#include "firmware/worker.h"

namespace
{

constexpr std::int32_t TIMEOUT = 600; // seconds

} // namespace

int main(int argc, char **argv)
{
	if (argc != 3) {
		std::fputs("Usage: download_time URL TARGET\n", stderr);
		return 2;
	}
	int ends[2];
	if (pipe(ends) != 0) {
		std::perror("download_time: pipe");
		return 1;
	}
	uloop_init(); // the worker takes leave of the loop it was forked in
	// The daemon's query has set the library up before a worker is forked.
	curl_global_init(CURL_GLOBAL_DEFAULT);
	const double started = seconds_now();
	const pid_t child = fork();
	if (child == 0) {
		close(ends[0]);
		fwupdate::run_worker(argv[1], argv[2], TIMEOUT, ends[1]);
	}
	close(ends[1]);
	fwupdate::ProgressRecord record = {};
	while (child > 0 && read(ends[0], &record, sizeof(record)) > 0) {
	}
	const double took = seconds_now() - started;
	rusage usage = {};
	int status = 0;
	if (child < 0 || wait4(child, &status, 0, &usage) != child || status != 0 ||
	    record.status != 0) {
		std::fprintf(stderr, "download_time: the transfer of %s failed\n", argv[1]);
		return 1;
	}
	std::printf("%.6f %ld\n", took, usage.ru_maxrss);
	return 0;
}
