// SPDX-License-Identifier: ISC
// The worker process: what it stores, what it reports, how it ends.
#include "worker_fixture.h"

#include <cstdlib>
#include <sys/resource.h>

using namespace fwupdate;
using namespace router_test;

namespace
{

using Texts = std::vector<std::string>;

} // namespace

TEST_F(WorkerTest, FirstCallbackAlwaysReports)
{
	server.on("/f", answer("image"));
	Worker worker(server.url("/f"));
	EXPECT_GE(worker.records().size(), 2u);
}

TEST_F(WorkerTest, FailureIsReportedWithItsCode)
{
	EXPECT_EQ(status_of(answer(404, "gone")), 22);
	EXPECT_EQ(status_of(answer("")), 18);
	EXPECT_EQ(syslog.texts(), Texts{"Unable to download firmware: empty file"});
	EXPECT_FALSE(exists(TARGET));
}

TEST_F(WorkerTest, LastRecordCountsAllBytesAsReceivedHoweverFewThereWere)
{
	server.on("/f", answer(noise(9000)).in_pieces(2).hold().reset_after_bytes(6000));
	Worker worker(server.url("/f"));
	server.release();
	ProgressRecord record = {};
	while (record.received == record.total) {
		ASSERT_TRUE(worker.next(record));
	}
	EXPECT_EQ(record.total, 9000u);
	EXPECT_EQ(record.received, 4500u);
	EXPECT_EQ(record.status, 0);
	server.release();
	const auto records = worker.records();
	ASSERT_FALSE(records.empty());
	EXPECT_EQ(records.back().total, 9000u);
	EXPECT_EQ(records.back().received, 9000u);
	EXPECT_EQ(records.back().status, 56);
	EXPECT_EQ(worker.end(), 0);
}

TEST_F(WorkerTest, LinkIsWrittenThrough)
{
	ASSERT_EQ(symlink("/var/elsewhere", TARGET), 0);
	EXPECT_EQ(status_of(answer("image")), 0);
	EXPECT_EQ(read_file("/var/elsewhere"), "image");
	unlink("/var/elsewhere");
}

// A sanitizer's allocator ends the process where malloc would fail.
#ifndef __SANITIZE_ADDRESS__
TEST_F(WorkerTest, MissingMemoryForTheTransferEndsItWithoutARecord)
{
	Worker worker(server.url("/f"), 30, [] {
		// Enough for the open file and a log line, and for nothing else.
		std::FILE *file = std::fopen("/dev/null", "w");
		void *reserve = std::malloc(1500);
		const rlimit none = {0, 0};
		setrlimit(RLIMIT_AS, &none);
		for (std::size_t size = 1 << 20; size >= 16; size -= size / 8) {
			while (std::malloc(size) != nullptr) { // NOLINT(*-unix.Malloc)
			}
		}
		std::fclose(file);
		std::free(reserve);
	});
	EXPECT_TRUE(worker.records().empty());
	EXPECT_EQ(WEXITSTATUS(worker.end()), 255);
	EXPECT_EQ(syslog.texts(), Texts{"Error, couldn't init curl"});
}
#endif

TEST_F(WorkerTest, SuccessorsFileIsNotDeleted)
{
	give_up_once_replaced([this] { files.write(TARGET, "the successor's"); });
	EXPECT_EQ(read_file(TARGET), "the successor's");
}

TEST_F(WorkerTest, FileOfAnotherFileSystemInItsPlaceIsNotDeleted)
{
	give_up_once_replaced([] { EXPECT_EQ(symlink("/etc/passwd", TARGET), 0); });
	EXPECT_EQ(unlink(TARGET), 0);
}

TEST_F(WorkerTest, WorkerThatIsGivenUpBeforeItStartsTouchesNothing)
{
	files.write(TARGET, "the successor's");
	int gate[2];
	ASSERT_EQ(pipe(gate), 0);
	Worker worker(server.url("/f"), 30, [&] {
		char go;
		close(gate[1]);
		EXPECT_EQ(read(gate[0], &go, 1), 0);
	});
	worker.give_up();
	close(gate[0]);
	close(gate[1]);
	EXPECT_EQ(worker.end(), 0);
	EXPECT_EQ(read_file(TARGET), "the successor's");
	EXPECT_TRUE(server.requests().empty());
}

// The loop's end may give the signal its usual effect again.
TEST_F(WorkerTest, ClosedPipeDoesNotKillItHoweverTheLoopLeavesTheSignal)
{
	server.on("/f", answer("image").in_pieces(2).hold());
	Worker worker(server.url("/f"), 30, [] { std::signal(SIGPIPE, SIG_DFL); });
	server.release();
	ASSERT_TRUE(server.wait_for_pieces("/f", 1));
	worker.give_up();
	EXPECT_EQ(worker.end(), 0);
	EXPECT_FALSE(exists(TARGET));
}
