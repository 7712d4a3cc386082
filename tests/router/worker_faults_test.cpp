// SPDX-License-Identifier: ISC
// The download worker is killed at moments that no server can prolong, row by row of
// docs/reliability.md: it waits for a reader of its file, which is a pipe here, or for room in
// the pipe to the daemon.
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "router/update_fixture.h"
#include "support/fault_row.h"

using namespace router_test;

namespace
{

class KilledEarlyOrLate : public UpdateTest
{
protected:
	static void record_moment(const std::string &moment)
	{
		record({.fault = "SIGKILL to the worker " + moment + ".",
			.caller = "`update`: code 2, nothing logged"});
	}

	void expect_failed_download(PendingCall &call)
	{
		expect_outcome(call.wait(), {.code = 2, .text = download_failed});
		EXPECT_TRUE(syslog.lines().empty());
		EXPECT_EQ(daemon().state_name(), "NONE");
		expect_not_installed();
	}

	// Fills the pipe from the worker to the daemon, which is stopped, with records that say
	// nothing: from now on the worker waits when it reports.
	void fill_progress_pipe(pid_t worker)
	{
		std::set<std::string> of_daemon;
		for (const auto &[number, target] : open_descriptors(daemon().pid())) {
			if (number > STDERR_FILENO && target.starts_with("pipe:")) {
				of_daemon.insert(target);
			}
		}
		std::size_t filled = 0;
		for (const auto &[number, target] : open_descriptors(worker)) {
			if (number > STDERR_FILENO && of_daemon.contains(target)) {
				fill("/realproc/" + std::to_string(worker) + "/fd/" +
				     std::to_string(number));
				filled++;
			}
		}
		EXPECT_EQ(filled, 1u);
	}

private:
	static void fill(const std::string &path)
	{
		const std::array<char, 12> empty_record = {};
		const int pipe = open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
		while (write(pipe, empty_record.data(), empty_record.size()) > 0) {
		}
		EXPECT_EQ(errno, EAGAIN);
		close(pipe);
	}
};

TEST_F(KilledEarlyOrLate, WorkerWithoutAFileIsAFailedDownload)
{
	record_moment("before it makes its file");
	ASSERT_EQ(mkfifo(image_path, 0600), 0);
	offer(answer(good_image()));
	start_daemon();
	PendingCall pending = daemon().start_update();
	ASSERT_TRUE(daemon().wait_for_state("FIRMWARE_CONNECT"));
	const std::vector<pid_t> workers = daemon().workers();
	ASSERT_EQ(workers.size(), 1u);
	::kill(workers[0], SIGKILL);
	expect_failed_download(pending);
	EXPECT_EQ(downloads(), 0u);
}

// Without time it reports nothing but the first and the last bytes.
TEST_F(KilledEarlyOrLate, WorkerThatDidNotReportTheLastByteIsAFailedDownload)
{
	record_moment("between the last byte and its report");
	offer(answer(good_image(20000)).cut_at({10000}).hold());
	start_without_time();
	PendingCall pending = daemon().start_update();
	server.release();
	ASSERT_TRUE(server.wait_for_pieces(firmware, 1));
	const pid_t worker = worker_of_download(1);
	stop_daemon();
	fill_progress_pipe(worker);
	server.release();
	ASSERT_TRUE(server.wait_for_pieces(firmware, 2));
	::kill(worker, SIGKILL);
	// Its last write would still find the room that the daemon makes.
	EXPECT_TRUE(eventually([&] { return !is_alive(worker); }));
	daemon().process().signal(SIGCONT);
	expect_failed_download(pending);
}

} // namespace
