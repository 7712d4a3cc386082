// SPDX-License-Identifier: ISC
// report_progress: when a record is due, and what is in it.
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <unistd.h>

#include "base/log.h"
#include "firmware/worker.h"
#include "support/debug_fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr std::int64_t NEVER = INT64_MAX; // no second will be later

class Progress : public DebugFixture
{
protected:
	void SetUp() override
	{
		DebugFixture::SetUp();
		std::signal(SIGPIPE, SIG_IGN);
		ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
		tracker.descriptor = ends[1];
	}
	void TearDown() override
	{
		close(ends[0]);
		close(ends[1]);
		DebugFixture::TearDown();
	}

	int report(curl_off_t total, curl_off_t now)
	{
		return report_progress(&tracker, total, now, 111, 222);
	}
	std::optional<ProgressRecord> sent()
	{
		ProgressRecord record;
		if (read(ends[0], &record, sizeof(record)) != sizeof(record)) {
			return {};
		}
		return record;
	}
	static std::int64_t clock_second()
	{
		timespec now;
		clock_gettime(CLOCK_MONOTONIC, &now);
		return now.tv_sec;
	}

	int ends[2];
	ProgressTracker tracker = {};
};

} // namespace

TEST_F(Progress, NewSecondSendsARecord)
{
	const std::int64_t before = clock_second();
	EXPECT_EQ(report(1000, 400), 0);
	const auto record = sent();
	ASSERT_TRUE(record);
	EXPECT_EQ(record->total, 1000u);
	EXPECT_EQ(record->received, 400u);
	EXPECT_EQ(record->status, 0);
	EXPECT_GE(tracker.last_second, before);
	EXPECT_LE(tracker.last_second, clock_second());
}

TEST_F(Progress, SameSecondSendsNothing)
{
	tracker.last_second = NEVER;
	tracker.record = {7, 7, 7};
	EXPECT_EQ(report(1000, 400), 0);
	EXPECT_FALSE(sent());
	EXPECT_EQ(tracker.record.total, 7u);
	EXPECT_EQ(tracker.last_second, NEVER);
}

TEST_F(Progress, NextSecondIsDueAndThePresentOneIsNot)
{
	// Both looked at in one and the same second of the clock.
	std::int64_t second;
	bool present;
	bool next;
	do {
		second = clock_second();
		tracker.last_second = second;
		report(1000, 400);
		present = sent().has_value();
		tracker.last_second = second - 1;
		report(1000, 400);
		next = sent().has_value();
	} while (clock_second() != second);
	EXPECT_FALSE(present);
	EXPECT_TRUE(next);
}

TEST_F(Progress, EqualCountsSendARecordEachTime)
{
	tracker.last_second = NEVER;
	for (const curl_off_t count : {0, 0, 1000, 1000}) {
		EXPECT_EQ(report(count, count), 0);
		const auto record = sent();
		ASSERT_TRUE(record);
		EXPECT_EQ(record->total, static_cast<std::uint32_t>(count));
		tracker.last_second = NEVER;
	}
}

TEST_F(Progress, CountsAreComparedWholeAndSentAsTheirLow32Bits)
{
	constexpr curl_off_t four_gib = curl_off_t{1} << 32;
	tracker.last_second = NEVER;
	EXPECT_EQ(report(four_gib + 5, 5), 0);
	EXPECT_FALSE(sent());

	tracker.last_second = 0;
	EXPECT_EQ(report(2 * four_gib + 9, four_gib + 5), 0);
	const auto record = sent();
	ASSERT_TRUE(record);
	EXPECT_EQ(record->total, 9u);
	EXPECT_EQ(record->received, 5u);
}

TEST_F(Progress, StatusOfAProgressRecordIsZero)
{
	tracker.record.status = 9;
	report(10, 5);
	EXPECT_EQ(sent()->status, 0);
}

TEST_F(Progress, LostReaderEndsTheTransfer)
{
	close(ends[0]);
	EXPECT_EQ(report(10, 5), -1);
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{"Error, can't write to pipe fd!"});
	ends[0] = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

TEST_F(Progress, RecordThatIsNotWrittenWholeEndsTheTransfer)
{
	char page[4096] = {};
	while (write(ends[1], page, sizeof(page)) > 0) {
	}
	EXPECT_EQ(report(10, 5), -1);
	EXPECT_TRUE(syslog.contains("Error, can't write to pipe fd!"));
}
