// SPDX-License-Identifier: ISC
// The worker process: what it stores, what it reports, how it ends.
#include "worker_fixture.h"

#include <cstdlib>
#include <sys/resource.h>
#include <sys/stat.h>

#include "base/bus.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

using Texts = std::vector<std::string>;

} // namespace

TEST_F(WorkerTest, StoresTheWholeBodyAndReportsIt)
{
	const std::string body = noise(300000);
	server.on("/f", answer(body).in_pieces(3));
	Worker worker(server.url("/f"));
	const auto records = worker.records();
	EXPECT_EQ(worker.end(), 0);
	EXPECT_EQ(read_file(TARGET), body);
	ASSERT_FALSE(records.empty());
	EXPECT_EQ(records.back().total, body.size());
	EXPECT_EQ(records.back().received, body.size());
	EXPECT_EQ(records.back().status, 0);
	EXPECT_TRUE(syslog.texts().empty());
}

TEST_F(WorkerTest, FirstCallbackAlwaysReports)
{
	server.on("/f", answer("image"));
	Worker worker(server.url("/f"));
	EXPECT_GE(worker.records().size(), 2u);
}

TEST_F(WorkerTest, FailedTransfersReportLibcurlsCodeAndLeaveNoFile)
{
	const struct {
		HttpAnswer answer;
		std::int32_t status;
		const char *text;
	} table[] = {
		{answer(404, "gone"), 22, "HTTP response code said error"},
		{answer(400, ""), 22, "HTTP response code said error"},
		{answer(503, "later"), 22, "HTTP response code said error"},
		{answer(std::string(5000, 'x')).announce(9000), 18, "Transferred a partial file"},
		{answer(std::string(5000, 'x')).reset_after_bytes(1000), 56,
		 "Failure when receiving data from the peer"},
		{reset_at_once(), 56, "Failure when receiving data from the peer"},
		{redirect("http://127.0.0.1:1/"), 7, "Couldn't connect to server"},
		{redirect("unheard-of://x"), 1, "Unsupported protocol"},
	};
	for (const auto &row : table) {
		EXPECT_EQ(status_of(row.answer), row.status) << row.text;
		EXPECT_EQ(syslog.texts(),
			  Texts{std::string("Unable to download firmware: ") + row.text});
		EXPECT_FALSE(exists(TARGET));
	}
}

TEST_F(WorkerTest, EmptyAnswerIsStatus18AndLeavesNoFile)
{
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

TEST_F(WorkerTest, RedirectIsFollowed)
{
	server.on("/there", answer("image"));
	EXPECT_EQ(status_of(redirect("/there")), 0);
	EXPECT_EQ(read_file(TARGET), "image");
}

TEST_F(WorkerTest, SizeThatIsNeverAnnouncedIsReportedAsZero)
{
	for (const HttpAnswer &framed :
	     {answer("image").without_length(), answer("image").in_chunks()}) {
		server.on("/f", framed);
		Worker worker(server.url("/f"));
		const auto records = worker.records();
		ASSERT_FALSE(records.empty());
		for (const ProgressRecord &record : records) {
			EXPECT_EQ(record.total, 0u);
			EXPECT_EQ(record.status, 0);
		}
		EXPECT_EQ(records.back().received, 0u);
		EXPECT_EQ(worker.end(), 0);
		EXPECT_EQ(read_file(TARGET), "image");
	}
}

TEST_F(WorkerTest, OlderFileIsReplacedAndNotMixed)
{
	files.write(TARGET, std::string(1000, 'o'));
	EXPECT_EQ(status_of(answer("image")), 0);
	EXPECT_EQ(read_file(TARGET), "image");
}

TEST_F(WorkerTest, LinkIsWrittenThrough)
{
	ASSERT_EQ(symlink("/var/elsewhere", TARGET), 0);
	EXPECT_EQ(status_of(answer("image")), 0);
	EXPECT_EQ(read_file("/var/elsewhere"), "image");
	unlink("/var/elsewhere");
}

TEST_F(WorkerTest, TargetThatCannotBeMadeEndsItWithoutARecord)
{
	ASSERT_EQ(mkdir(TARGET, 0755), 0);
	Worker worker(server.url("/f"));
	EXPECT_TRUE(worker.records().empty());
	EXPECT_EQ(WEXITSTATUS(worker.end()), 255);
	EXPECT_EQ(syslog.texts(), Texts{"Error, couldn't open /tmp/fwupdate.bin"});
	EXPECT_TRUE(server.requests().empty());
	rmdir(TARGET);
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

TEST_F(WorkerTest, FullDiskIsAFailedTransfer)
{
	files.fill_tmp(1 << 16);
	EXPECT_EQ(status_of(answer(std::string(1 << 20, 'x'))), 23);
	EXPECT_EQ(syslog.texts(), Texts{"Unable to download firmware: Failed writing received "
					"data to disk/application"});
	EXPECT_FALSE(exists(TARGET));
}

TEST_F(WorkerTest, TimeoutEndsTheTransfer)
{
	EXPECT_EQ(status_of(silence(), 1), 28);
	EXPECT_EQ(syslog.texts(), Texts{"Unable to download firmware: Timeout was reached"});
}

TEST_F(WorkerTest, LostReaderEndsTheTransferAndDeletesTheFile)
{
	server.on("/f", answer("image").in_pieces(2).hold());
	Worker worker(server.url("/f"));
	server.release();
	ASSERT_TRUE(server.wait_for_pieces("/f", 1));
	ASSERT_TRUE(wait_until_exists(TARGET));
	worker.give_up();
	// Once a second libcurl asks; the pipe is noticed then.
	EXPECT_EQ(worker.end(), 0);
	EXPECT_FALSE(exists(TARGET));
	EXPECT_EQ(syslog.texts(), (Texts{"Error, can't write to pipe fd!",
					 "Unable to download firmware: Operation was "
					 "aborted by an application callback"}));
}

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

TEST_F(WorkerTest, SuccessorDoesNotShareTheFileOfItsPredecessor)
{
	server.on("/f", {answer("predecessor").in_pieces(2).hold(), answer("successor")});
	Worker first(server.url("/f"));
	server.release();
	ASSERT_TRUE(server.wait_for_pieces("/f", 1));
	ASSERT_TRUE(wait_until_exists(TARGET));
	Worker second(server.url("/f"));
	EXPECT_EQ(second.end(), 0);
	first.give_up();
	server.release_all();
	first.end();
	EXPECT_EQ(read_file(TARGET), "successor");
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

TEST_F(WorkerTest, BusAndLoopOfTheDaemonAreLeft)
{
	const BusServices services(BusServices::Which::broker_only);
	ASSERT_EQ(uloop_init(), 0);
	bus_connection = ubus_connect(nullptr);
	ASSERT_NE(bus_connection, nullptr);
	ubus_add_uloop(bus_connection);
	server.on("/f", silence());
	Worker worker(server.url("/f"));
	ASSERT_TRUE(server.wait_for_requests(1));

	// The number may be in use again, for the connection to the server.
	const std::string bus = open_descriptors(getpid()).at(bus_connection->sock.fd);
	const auto opened = open_descriptors(worker.pid());
	EXPECT_FALSE(opened.empty());
	for (const auto &[number, what] : opened) {
		EXPECT_EQ(what.find("eventpoll"), std::string::npos) << number;
		EXPECT_NE(what, bus) << number;
	}

	// The loop's handler would keep it alive.
	kill(worker.pid(), SIGTERM);
	const int status = worker.end();
	EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
	ubus_free(bus_connection);
	bus_connection = nullptr;
	uloop_done();
}
