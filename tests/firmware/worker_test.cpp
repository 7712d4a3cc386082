// SPDX-License-Identifier: ISC
// The worker process: what it stores, what it reports, how it ends.
#include "firmware/worker.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/bus.h"
#include "core/log.h"
#include "support/fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

using Texts = std::vector<std::string>;

constexpr char TARGET[] = "/tmp/fwupdate.bin";

// A forked run_worker, with the pipe that it reports to.
class Worker
{
public:
	explicit Worker(const std::string &url, std::int32_t timeout = 30,
			const std::function<void()> &prepare = {})
	{
		int ends[2];
		EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
		pid_ = fork();
		if (pid_ == 0) {
			close(ends[0]);
			std::signal(SIGPIPE, SIG_IGN);
			if (prepare) {
				prepare();
			}
			run_worker(url.c_str(), TARGET, timeout, ends[1]);
		}
		close(ends[1]);
		pipe_ = ends[0];
	}
	~Worker()
	{
		give_up();
		if (pid_ > 0) {
			kill(pid_, SIGKILL);
			waitpid(pid_, nullptr, 0);
		}
	}
	Worker(const Worker &) = delete;

	pid_t pid() const
	{
		return pid_;
	}
	void give_up()
	{
		if (pipe_ >= 0) {
			close(pipe_);
			pipe_ = -1;
		}
	}
	// All records until the end of the stream.
	std::vector<ProgressRecord> records() const
	{
		std::vector<ProgressRecord> all;
		ProgressRecord record;
		while (read(pipe_, &record, sizeof(record)) == sizeof(record)) {
			all.push_back(record);
		}
		return all;
	}
	// The status that waitpid tells.
	int end()
	{
		int status = -1;
		waitpid(pid_, &status, 0);
		pid_ = -1;
		return status;
	}

private:
	pid_t pid_ = -1;
	int pipe_ = -1;
};

class WorkerTest : public RouterFixture
{
protected:
	void SetUp() override
	{
		RouterFixture::SetUp();
		debug_mode = 1;
	}
	void TearDown() override
	{
		debug_mode = 0;
		RouterFixture::TearDown();
	}

	// Status of the last record of a worker that is given this answer.
	std::int32_t status_of(const HttpAnswer &answer, std::int32_t timeout = 30)
	{
		syslog.clear();
		server.on("/f", answer);
		Worker worker(server.url("/f"), timeout);
		const auto records = worker.records();
		EXPECT_TRUE(WIFEXITED(worker.end()));
		EXPECT_FALSE(records.empty());
		for (const ProgressRecord &record : records) {
			EXPECT_TRUE(record.status == 0 || &record == &records.back());
		}
		EXPECT_EQ(records.back().received, records.back().total);
		return records.back().status;
	}

	HttpServer server;
	SyslogCatcher syslog;
};

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
		for (const ProgressRecord &record : worker.records()) {
			EXPECT_EQ(record.total, 0u);
			EXPECT_EQ(record.status, 0);
		}
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
		// Enough for the open file, and for nothing else.
		void *reserve = std::malloc(1500);
		const rlimit none = {0, 0};
		setrlimit(RLIMIT_AS, &none);
		for (std::size_t size = 1 << 20; size >= 16; size /= 2) {
			while (std::malloc(size) != nullptr) {
			}
		}
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
	server.on("/f", answer("image").in_pieces(2).hold());
	Worker worker(server.url("/f"));
	server.release();
	ASSERT_TRUE(server.wait_for_pieces("/f", 1));
	ASSERT_TRUE(wait_until_exists(TARGET));
	unlink(TARGET);
	files.write(TARGET, "the successor's");
	worker.give_up();
	EXPECT_EQ(worker.end(), 0);
	EXPECT_EQ(read_file(TARGET), "the successor's");
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

	int sockets = 0;
	for (const auto &[number, what] : open_descriptors(worker.pid())) {
		EXPECT_EQ(what.find("eventpoll"), std::string::npos) << number;
		sockets += what.starts_with("socket:") && number > 2 ? 1 : 0;
	}
	// One is to the server; the others are the test's own listeners.
	const auto own = open_descriptors(getpid());
	EXPECT_FALSE(open_descriptors(worker.pid()).contains(bus_connection->sock.fd) &&
		     open_descriptors(worker.pid())[bus_connection->sock.fd] ==
			     own.at(bus_connection->sock.fd));

	// The loop's handler would keep it alive.
	kill(worker.pid(), SIGTERM);
	const int status = worker.end();
	EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
	ubus_free(bus_connection);
	bus_connection = nullptr;
	uloop_done();
}
