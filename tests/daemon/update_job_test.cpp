// SPDX-License-Identifier: ISC
// The update job's timers, endings and start, one callback at a time.
#include <algorithm>
#include <csignal>

#include "daemon/sent_messages.h"
#include "daemon/update_job_fixture.h"

using namespace router_test;

namespace
{

class UpdateJobCallbacks : public UpdateJobFixture
{
};

TEST_F(UpdateJobCallbacks, AttemptsStopAtTheSmallestNumber)
{
	for (const std::int32_t attempts : {smallest, smallest + 1, -1, 0, 1}) {
		SCOPED_TRACE(attempts);
		begin_download(attempts);
		on_job_timeout(&job.timer);
		expect_finished(ERROR_DOWNLOAD);
		end_reports();
	}
}

TEST_F(UpdateJobCallbacks, TimeoutLogsUnlessAnAttemptHasFailedBefore)
{
	for (const std::int32_t code : {ERROR_DOWNLOAD, ERROR_IMAGE}) {
		begin_download(1);
		job.job_result = code;
		on_job_timeout(&job.timer);
		expect_finished(ERROR_DOWNLOAD);
		end_reports();
	}
	EXPECT_TRUE(syslog.lines().empty());
	begin_download(1);
	const int descriptor = job.watch.fd;
	on_job_timeout(&job.timer);
	expect_finished(ERROR_DOWNLOAD);
	EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
	ASSERT_EQ(syslog.lines().size(), 1u);
	EXPECT_EQ(syslog.lines().front().text, "Unable to download firmware: timeout");
}

TEST_F(UpdateJobCallbacks, RetryDeletesTheImageAndTheDelayAndKeepsTheRest)
{
	break_starts();
	begin_download(3);
	files.write(image_path, "half");
	job.force = true;
	job.progress = {1000, 1000, 0};
	job.downloaded = job.install = true;
	on_job_timeout(&job.timer);
	expect_waiting_for_a_retry(1);
	EXPECT_FALSE(exists(image_path));
	EXPECT_EQ(job.delay, 0);
	EXPECT_EQ(job.timeout, 30);
	EXPECT_TRUE(job.force);
	EXPECT_TRUE(job.downloaded);
	EXPECT_TRUE(job.install);
	EXPECT_TRUE(same(job.progress, {1000, 1000, 0}));
}

TEST_F(UpdateJobCallbacks, RetryThatCannotStartEndsTheJobWithItsLastAttempt)
{
	break_starts();
	begin_download(2);
	on_job_timeout(&job.timer);
	expect_finished(ERROR_DOWNLOAD);
}

TEST_F(UpdateJobCallbacks, EveryAttemptHasTheWholeTimeAgain)
{
	// Times 1000 in 32 bits; what is negative then is due at once.
	struct {
		std::int32_t seconds;
		std::int64_t milliseconds;
	} const cases[] = {
		{30, 30000},
		{1, 1000},
		{0, 0},
		{-1, -1000},
		{2147483, 2147483000},
		{2147484, -1},
		{4294967, -296},
		{4294968, 704},
		{8589934, -592},
		{8589935, 408},
		{-4294967, 296},
		{largest, -1000},
		{smallest, 0},
		{smallest + 1, 1000},
	};
	allow_starts();
	for (const auto &row : cases) {
		SCOPED_TRACE(row.seconds);
		begin_download(2);
		job.timeout = row.seconds;
		on_job_timeout(&job.timer);
		ASSERT_TRUE(job.timer.pending);
		EXPECT_EQ(job.timer.cb, on_job_timeout);
		EXPECT_TRUE(job.watch.registered);
		EXPECT_GE(job.watch.fd, 0);
		const std::int64_t left = uloop_timeout_remaining64(&job.timer);
		EXPECT_LE(left, std::max<std::int64_t>(row.milliseconds, 0));
		if (row.milliseconds > 0) {
			EXPECT_GT(left, row.milliseconds / 2 - 200);
		}
		// Ends it, whatever comes of the download.
		on_job_timeout(&job.timer);
		expect_finished(ERROR_DOWNLOAD);
		end_reports();
	}
}

TEST_F(UpdateJobCallbacks, DelayIsCountedIn32Bits)
{
	struct {
		std::int32_t seconds;
		std::int64_t milliseconds;
	} const cases[] = {
		{0, 0},		{600, 600000},	  {-600, -600000}, {2147483, 2147483000},
		{4294968, 704}, {largest, -1000}, {smallest, 0},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.seconds);
		put_good_image();
		begin_download(1);
		job.delay = row.seconds;
		job.downloaded = true;
		end_reports();
		run_loop();
		expect_delay_of_the_job();
		const std::int64_t left = uloop_timeout_remaining64(&job.timer);
		EXPECT_LE(left, std::max<std::int64_t>(row.milliseconds, 0));
		if (row.milliseconds > 0) {
			EXPECT_GT(left, row.milliseconds / 2);
		}
		uloop_timeout_cancel(&job.timer);
	}
}

TEST_F(UpdateJobCallbacks, GoodImageForgetsTheFailuresBefore)
{
	put_good_image();
	begin_download(7);
	job.job_result = ERROR_IMAGE;
	job.downloaded = true;
	end_reports();
	run_loop();
	expect_delay_of_the_job();
	EXPECT_EQ(job.job_result, NO_ERROR);
	EXPECT_EQ(job.attempts, 6);
}

TEST_F(UpdateJobCallbacks, PartitionThatCannotBeRecordedShowsAsResultUntilTheInstallation)
{
	files.install_recording_tool("/usr/sbin/fw_setenv", "exit 1");
	put_good_image();
	begin_download(0);
	job.downloaded = true;
	end_reports();
	run_loop();
	expect_delay_of_the_job();
	EXPECT_EQ(update_context.result, ERROR_WRITE);
	EXPECT_EQ(job.job_result, NO_ERROR);
	EXPECT_EQ(job.attempts, -1);
	uloop_timeout_cancel(&job.timer); // as the loop does first
	on_install(&job.timer);
	EXPECT_EQ(update_context.result, NO_ERROR);
	EXPECT_TRUE(files.wait_for_tool_calls(installer, 1));
}

TEST_F(UpdateJobCallbacks, InstallationLeavesTheStateAndClearsTheJob)
{
	files.write(image_path, "image");
	update_context.state = UpdateState::WAIT_DELAY;
	std::string("firmware").copy(update_context.boot_partition, PARTITION_SIZE - 1);
	job.install = job.active = job.force = true;
	job.attempts = 2;
	on_install(&job.timer);
	EXPECT_EQ(update_context.state, UpdateState::WAIT_DELAY);
	EXPECT_STREQ(update_context.boot_partition, "firmware");
	EXPECT_EQ(update_context.result, NO_ERROR);
	expect_cleared();
	EXPECT_TRUE(files.wait_for_tool_calls(installer, 1));
	EXPECT_TRUE(exists(image_path));
}

TEST_F(UpdateJobCallbacks, NothingIsInstalledAndTheImageDeletedUnlessAllIsWell)
{
	struct {
		bool install;
		std::int32_t job_result;
	} const cases[] = {{false, NO_ERROR},
			   {false, ERROR_DOWNLOAD},
			   {true, ERROR_DOWNLOAD},
			   {true, ERROR_IMAGE}};
	for (const auto &row : cases) {
		files.write(image_path, "image");
		job.install = row.install;
		job.job_result = row.job_result;
		on_install(&job.timer);
		EXPECT_EQ(update_context.result, row.job_result);
		EXPECT_FALSE(exists(image_path));
		expect_cleared();
	}
	EXPECT_TRUE(files.tool_calls("/bin/sleep").empty());
	EXPECT_TRUE(files.tool_calls(installer).empty());
}

TEST_F(UpdateJobCallbacks, UpdateWithoutArgumentsHasThirtySecondsOneAttemptAndNoDelay)
{
	ubus_request_data request = {};
	request.peer = 1234;
	request.seq = 7;
	allow_starts();
	offer_update();
	EXPECT_EQ(handle_update(bus_connection, nullptr, &request, "update", nullptr), 0);
	EXPECT_TRUE(request.deferred);
	EXPECT_EQ(job.request.peer, 1234u);
	EXPECT_EQ(job.request.seq, 7u);
	EXPECT_EQ(job.timeout, 30);
	EXPECT_EQ(job.attempts, 1);
	EXPECT_EQ(job.delay, 0);
	EXPECT_FALSE(job.force);
	EXPECT_TRUE(job.active);
	EXPECT_TRUE(job.watch.registered);
	const std::int64_t left = uloop_timeout_remaining64(&job.timer);
	EXPECT_GT(left, 20000);
	EXPECT_LE(left, 30000);
}

// As when something has closed the daemon's standard input.
TEST_F(UpdateJobCallbacks, DescriptorZeroIsAPipeLikeAnyOther)
{
	ubus_request_data request = {};
	request.fd = -1;
	allow_starts();
	offer_update();
	const int kept = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
	close(STDIN_FILENO);
	handle_update(bus_connection, nullptr, &request, "update", nullptr);
	EXPECT_TRUE(request.deferred);
	EXPECT_EQ(job.watch.fd, 0);
	EXPECT_TRUE(job.watch.registered);
	EXPECT_EQ(syslog.count("pipe"), 0u);
	on_job_timeout(&job.timer);
	EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "the pipe is closed";
	expect_finished(ERROR_DOWNLOAD);
	dup2(kept, STDIN_FILENO);
	close(kept);
}

TEST_F(UpdateJobCallbacks, FieldsOfAnEarlierJobDoNotReachTheNext)
{
	ubus_request_data request = {};
	break_starts();
	offer_update();
	job.job_result = ERROR_IMAGE;
	job.progress = {5, 5, 5};
	job.downloaded = job.install = true;
	EXPECT_EQ(handle_update(bus_connection, nullptr, &request, "update", nullptr), 0);
	EXPECT_EQ(job.job_result, ERROR_DOWNLOAD);
	EXPECT_TRUE(same(job.progress, {0, 0, 0}));
	EXPECT_FALSE(job.downloaded);
	EXPECT_FALSE(job.install);
}

TEST_F(UpdateJobCallbacks, FailedStartWithoutAttemptsLeftIsNotDeferredAndStaysActive)
{
	ubus_request_data request = {};
	request.peer = 1234;
	break_starts();
	offer_update();
	EXPECT_EQ(handle_update(bus_connection, nullptr, &request, "update", nullptr), 0);
	EXPECT_FALSE(request.deferred);
	EXPECT_EQ(update_context.result, ERROR_DOWNLOAD);
	EXPECT_TRUE(job.active);
	EXPECT_FALSE(job.timer.pending);
	EXPECT_EQ(job.attempts, 0);
	EXPECT_EQ(job.job_result, ERROR_DOWNLOAD);
	EXPECT_EQ(job.request.peer, 0u);

	EXPECT_EQ(handle_update(bus_connection, nullptr, &request, "update", nullptr), 0);
	EXPECT_FALSE(request.deferred);
	EXPECT_EQ(update_context.result, ERROR_ALREADY_UPDATING);
}

// With SIGCHLD ignored the status of a command is lost, and system() fails.
TEST_F(UpdateJobCallbacks, InstallerThatCannotBeStartedShowsAsResult)
{
	files.write(image_path, "image");
	struct sigaction ignore = {};
	struct sigaction before = {};
	ignore.sa_handler = SIG_IGN;
	sigaction(SIGCHLD, &ignore, &before);
	job.install = true;
	on_install(&job.timer);
	sigaction(SIGCHLD, &before, nullptr);
	EXPECT_EQ(update_context.result, ERROR_WRITE);
	ASSERT_EQ(syslog.lines().size(), 1u);
	EXPECT_EQ(syslog.lines().front().text, "Can't run sysupgrade");
	EXPECT_TRUE(exists(image_path));
	expect_cleared();
	EXPECT_TRUE(files.wait_for_tool_calls(installer, 1));
}

// Numbers of callers mean nothing on another connection: the same one may be somebody else's.
TEST_F(UpdateJobCallbacks, RequestOfALostConnectionIsNotAnswered)
{
	ubus_request_data request = {};
	request.peer = 1234;
	request.seq = 7;
	request.fd = -1;
	allow_starts();
	const SentMessages sent;
	for (const std::uint32_t losses : {0, 1}) {
		SCOPED_TRACE(losses);
		offer_update();
		EXPECT_EQ(handle_update(bus_connection, nullptr, &request, "update", nullptr), 0);
		bus_generation += losses;
		on_job_timeout(&job.timer);
		expect_finished(ERROR_DOWNLOAD);
		const std::vector<SentMessage> messages = sent.take();
		ASSERT_EQ(messages.size(), losses == 0 ? 2u : 0u);
		for (const SentMessage &message : messages) {
			EXPECT_EQ(message.peer, 1234u);
			EXPECT_EQ(message.seq, 7u);
		}
	}
}

TEST_F(UpdateJobCallbacks, FailedJobKeepsPartitionAndMessage)
{
	std::string("rootfs").copy(update_context.boot_partition, PARTITION_SIZE - 1);
	update_context.need_update = 1;
	begin_download(1);
	on_job_timeout(&job.timer);
	expect_finished(ERROR_DOWNLOAD);
	EXPECT_STREQ(update_context.boot_partition, "rootfs");
	EXPECT_STREQ(update_context.message, "Unable to download firmware: timeout\n");
	EXPECT_EQ(update_context.need_update, 1);
}

} // namespace
