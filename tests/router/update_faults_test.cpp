// SPDX-License-Identifier: ISC
// What happens around the update job: no room, tools that are missing, and processes that go away:
// the caller, the worker, the broker, the daemon itself.
#include <csignal>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "router/update_fixture.h"

using namespace router_test;

namespace
{

class UpdateFaults : public UpdateTest
{
protected:
	// A job whose download hangs after its first piece of two.
	PendingCall start_hanging_job(const Fields &arguments = {})
	{
		const std::string image = good_image(20000);
		offer(answer(image).cut_at({10000}).hold());
		start_daemon({"--debug"}, FakeClock::settings());
		PendingCall pending = daemon().start_update(arguments);
		server.release();
		EXPECT_TRUE(server.wait_for_pieces(firmware, 1));
		return pending;
	}

	// Longer than `seven_tenths` and `under_two`; a worker reports once a second.
	void let_time_pass()
	{
		clock.advance(std::chrono::seconds(2));
	}

	// The fixture counts descriptors at the end: a daemon that looks for a bus has one less.
	void restore_broker() const
	{
		bus->start_broker();
		EXPECT_TRUE(wait_for_object("fwupdate"));
	}
};

// So small that nobody notices before the file is closed.
TEST_F(UpdateFaults, SmallImageThatDoesNotFitIsABadImage)
{
	offer(answer(good_image(500))); // less than any C library's buffer
	files.fill_tmp(0);
	start_daemon();
	expect_outcome(daemon().update({string_field("partition", "unlisted")}),
		       {.code = 3, .text = "Can't mmap image [-4]"});
	expect_not_installed();
}

// Everybody may lock a folder that they can read.
TEST_F(UpdateFaults, LockOnTmpThatAStrangerHoldsTakesNoTimeAway)
{
	const int folder = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	ASSERT_EQ(flock(folder, LOCK_EX), 0);
	offer(answer(good_image()));
	start_daemon();
	expect_outcome(update(2, {int32_field("timeout", 4)}), {});
	expect_installed();
	close(folder);
}

TEST_F(UpdateFaults, KilledWorkerIsReplacedWhileAttemptsAreLeft)
{
	PendingCall pending = start_hanging_job({int32_field("attempts", 2)});
	server.on(firmware, answer(good_image()));
	::kill(worker_of_download(1), SIGKILL);
	expect_outcome(pending.wait(), {});
	expect_installed();
	expect_nothing_leaked();
}

TEST_F(UpdateFaults, StoppedWorkerIsGivenUpAndEndsByItself)
{
	clock.stop();
	PendingCall pending = start_hanging_job({int32_field("timeout", seven_tenths)});
	const pid_t worker = worker_of_download(1);
	::kill(worker, SIGSTOP);
	let_time_pass();
	expect_outcome(pending.wait(),
		       {.code = 2, .text = "Unable to download firmware: timeout\n"});
	EXPECT_TRUE(is_alive(worker));
	::kill(worker, SIGCONT);
	EXPECT_TRUE(daemon().wait_for_workers(0));
	EXPECT_EQ(syslog.texts(),
		  (std::vector<std::string>{
			  "Unable to download firmware: timeout", "Error, can't write to pipe fd!",
			  "Unable to download firmware: Operation was aborted by an "
			  "application callback"}));
	expect_not_installed();
	expect_nothing_leaked();
}

TEST_F(UpdateFaults, WorkerThatWasGivenUpDeletesItsArchive)
{
	offer(answer("archive").cut_at({3}).hold(), {.archive = "1", .file_name = "image.bin"});
	start_without_time();
	PendingCall pending = daemon().start_update({int32_field("timeout", seven_tenths)});
	ASSERT_TRUE(server.wait_for_requests(firmware, 1));
	let_time_pass();
	EXPECT_EQ(code_of(pending.wait()), 2);
	let_time_pass(); // its next report finds no reader
	EXPECT_TRUE(daemon().wait_for_workers(0));
	EXPECT_FALSE(exists(archive_path));
}

// The first worker wakes when the second has long finished, takes in the rest of its own answer,
// and fails.
TEST_F(UpdateFaults, WorkerThatWasGivenUpKeepsItsHandsOffTheSuccessorsImage)
{
	const std::string image = good_image(5000);
	clock.stop();
	PendingCall pending =
		start_hanging_job({int32_field("timeout", under_two), int32_field("attempts", 2)});
	const pid_t worker = worker_of_download(1);
	::kill(worker, SIGSTOP);
	server.on(firmware, answer(image));
	let_time_pass();
	expect_outcome(pending.wait(), {});
	expect_installed();
	server.release_all();
	::kill(worker, SIGCONT);
	EXPECT_TRUE(daemon().wait_for_workers(0));
	EXPECT_EQ(read_file(image_path), image);
	expect_nothing_leaked();
}

TEST_F(UpdateFaults, WorkerThatWasGivenUpKeepsItsHandsOffTheSuccessorsArchive)
{
	offer(answer("old archive").cut_at({3}).hold(), {.archive = "1", .file_name = "image.bin"});
	start_without_time();
	PendingCall pending = daemon().start_update(
		{int32_field("timeout", under_two), int32_field("attempts", 2)});
	const pid_t worker = worker_of_download(1);
	::kill(worker, SIGSTOP);
	server.on(firmware, answer("the new archive"));
	let_time_pass();
	expect_outcome(pending.wait(), {.code = 3, .text = "Can't open image [-2]"});
	::kill(worker, SIGCONT);
	EXPECT_TRUE(daemon().wait_for_workers(0));
	EXPECT_EQ(read_file(archive_path), "the new archive");
	may_leave_image = true;
}

// The model of the router is asked over the bus.
TEST_F(UpdateFaults, ImageIsRefusedWhenTheBusHasGone)
{
	PendingCall pending = start_hanging_job();
	bus->stop_routerd();
	bus->stop_broker();
	server.release_all();
	EXPECT_TRUE(syslog.wait_for("Bad Model [-9]"));
	EXPECT_TRUE(wait_until_gone(image_path));
	EXPECT_EQ(files.tool_calls(installer), Calls{});
	EXPECT_TRUE(daemon().running());
	expect_no_answer(pending);
	restore_broker();
}

// Workers end while the daemon reads the output of a tool: what it has read already counts.
TEST_F(UpdateFaults, SignalsWhileAToolIsReadLoseNothing)
{
	files.install_tool("/usr/bin/awk", "/bin/busybox awk \"$@\"\n"
					   "case $1 in *1024*) ;; *) exit ;; esac\n"
					   "read -r daemon </var/daemon.pid\n"
					   "signals=3000\n"
					   "while [ $signals -gt 0 ]; do\n"
					   "kill -CHLD $daemon\n"
					   "signals=$((signals - 1))\n"
					   "done");
	offer(answer(good_image()));
	start_daemon();
	files.write("/var/daemon.pid", std::to_string(daemon().pid()) + "\n");
	expect_outcome(daemon().update(), {});
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{});
	expect_installed();
}

TEST_F(UpdateFaults, ManyJobsLeaveNothingBehind)
{
	offer();
	start_daemon();
	const std::vector<std::string> before = list_folder("/tmp");
	for (int round = 0; round < 3; round++) {
		server.on(firmware, {answer(404, ""), answer("no firmware"), answer(good_image()),
				     answer("half").announce(8)});
		expect_outcome(daemon().update({int32_field("attempts", 3)}), {});
		EXPECT_EQ(code_of(daemon().update({int32_field("attempts", 2)})), 2);
		EXPECT_EQ(code_of(daemon().update({int32_field("timeout", 0)})), 2);
		EXPECT_EQ(daemon().update({string_field("partition", "")}).status, 2);
		EXPECT_TRUE(daemon().wait_for_workers(0));
	}
	EXPECT_TRUE(files.wait_for_tool_calls(installer, 3));
	expect_nothing_leaked();
	EXPECT_EQ(list_folder("/tmp"), before);
}

} // namespace
