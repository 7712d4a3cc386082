// SPDX-License-Identifier: ISC
// What the update job makes of the records in the pipe and of its end.
#include "daemon/update_job_fixture.h"

using namespace router_test;

namespace
{

class UpdateJobProgress : public UpdateJobFixture
{
};

TEST_F(UpdateJobProgress, KeepsTheLastOfSeveralRecords)
{
	begin_download(1);
	report({{1000, 10, 0}, {1000, 20, 0}, {2000, 30, 0}});
	run_loop();
	EXPECT_TRUE(same(job.progress, {2000, 30, 0}));
	EXPECT_FALSE(job.downloaded);
	EXPECT_TRUE(job.active);
	EXPECT_TRUE(job.watch.registered);
	EXPECT_TRUE(job.timer.pending);
}

TEST_F(UpdateJobProgress, TakesAShortReadForARecord)
{
	const std::uint32_t total = 1000;
	const ProgressRecord next = {7, 9, 0};
	begin_download(1);
	report(&total, sizeof(total));
	run_loop();
	EXPECT_TRUE(same(job.progress, {1000, 0, 0}));
	// What comes next begins a record of its own.
	report(&next, 8);
	run_loop();
	EXPECT_TRUE(same(job.progress, {7, 9, 0}));
	EXPECT_TRUE(job.active);
}

TEST_F(UpdateJobProgress, KnowsAWholeFileByAnyRecordWithBothCountsEqual)
{
	struct {
		std::vector<ProgressRecord> records;
		bool whole;
	} const cases[] = {
		{{{1000, 1000, 0}}, true},
		{{{1, 1, 0}}, true},
		{{{0xffffffff, 0xffffffff, 0}}, true},
		{{{1000, 1000, 0}, {1000, 3, 0}}, true},
		{{{1000, 1000, 0}, {0, 0, 0}}, true},
		{{{0, 0, 0}}, false},
		{{{0, 1000, 0}}, false},
		{{{1000, 0, 0}}, false},
		{{{1000, 999, 0}, {1000, 1001, 0}}, false},
	};
	begin_download(1);
	for (const auto &row : cases) {
		job.downloaded = false;
		report(row.records);
		run_loop();
		EXPECT_EQ(job.downloaded, row.whole) << row.records.front().total;
		EXPECT_TRUE(job.active);
	}
}

TEST_F(UpdateJobProgress, ReadsNothingBehindARecordOfAFailure)
{
	break_starts();
	begin_download(5);
	report({{8, 8, 56}, {1, 2, 0}});
	end_reports();
	run_loop();
	EXPECT_TRUE(same(job.progress, {8, 8, 56}));
	// Whole, as far as the counts go; that outlives the attempt, and so does the record.
	EXPECT_TRUE(job.downloaded);
	EXPECT_EQ(job.delay, 0);
	EXPECT_FALSE(job.install);
	expect_waiting_for_a_retry(3);
}

TEST_F(UpdateJobProgress, TakesEveryStatusButZeroForAFailure)
{
	for (const std::int32_t status : {1, 18, 255, -1, largest, smallest}) {
		SCOPED_TRACE(status);
		begin_download(1);
		job.job_result = ERROR_IMAGE; // replaced
		report({{0, 0, status}});
		run_loop();
		expect_finished(ERROR_DOWNLOAD);
		end_reports();
	}
}

TEST_F(UpdateJobProgress, WaitsForMoreWhileThePipeIsOpen)
{
	begin_download(1);
	job.downloaded = true;
	on_progress(&job.watch, ULOOP_READ);
	on_progress(&job.watch, 0);
	EXPECT_TRUE(job.active);
	EXPECT_TRUE(job.watch.registered);
	EXPECT_EQ(job.job_result, NO_ERROR);
	EXPECT_EQ(job.attempts, 1);
}

TEST_F(UpdateJobProgress, EndOfThePipeWithoutAWholeFileIsADownloadFailure)
{
	begin_download(1);
	const int descriptor = job.watch.fd;
	report({{1000, 999, 0}});
	end_reports();
	run_loop();
	expect_finished(ERROR_DOWNLOAD);
	EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
	EXPECT_TRUE(syslog.lines().empty());
}

TEST_F(UpdateJobProgress, EndOfThePipeKeepsTheCodeOfAnEarlierAttempt)
{
	for (const std::int32_t code : {ERROR_DOWNLOAD, ERROR_IMAGE}) {
		begin_download(1);
		job.job_result = code;
		end_reports();
		run_loop();
		expect_finished(code);
	}
}

TEST_F(UpdateJobProgress, EndOfThePipeCountsHoweverTheLoopSaysIt)
{
	begin_download(1);
	job.watch.eof = true;
	on_progress(&job.watch, 0);
	expect_finished(ERROR_DOWNLOAD);
	end_reports();

	begin_download(1);
	job.watch.error = true;
	on_progress(&job.watch, 0);
	expect_finished(ERROR_DOWNLOAD);
}

TEST_F(UpdateJobProgress, WholeFileAndEndInOneGoAreVerified)
{
	begin_download(1);
	put_good_image();
	report({{564, 10, 0}, {564, 564, 0}, {564, 564, 0}});
	end_reports();
	run_loop();
	expect_delay_of_the_job();
	EXPECT_EQ(job.attempts, 0);
	EXPECT_EQ(job.job_result, NO_ERROR);
}

} // namespace
