// SPDX-License-Identifier: ISC
// A worker forked out of the test program, with the pipe that it reports to and a server to
// download from. For this folder only.
#pragma once

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "base/log.h"
#include "firmware/worker.h"
#include "support/debug_fixture.h"

namespace router_test
{

inline constexpr char TARGET[] = "/tmp/fwupdate.bin";

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
			fwupdate::run_worker(url.c_str(), TARGET, timeout, ends[1]);
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
	// The next record, as soon as it comes; false at the end of the stream.
	bool next(fwupdate::ProgressRecord &record) const
	{
		return read(pipe_, &record, sizeof(record)) == static_cast<ssize_t>(sizeof(record));
	}
	// All records until the end of the stream.
	std::vector<fwupdate::ProgressRecord> records() const
	{
		std::vector<fwupdate::ProgressRecord> all;
		fwupdate::ProgressRecord record;
		while (next(record)) {
			all.push_back(record);
		}
		return all;
	}
	// The status that waitpid tells.
	int end()
	{
		int status = -1;
		if (pid_ <= 0) {
			ADD_FAILURE() << "there is no worker";
			return status;
		}
		if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) {
			ADD_FAILURE() << "the worker does not end";
			kill(pid_, SIGKILL);
			waitpid(pid_, &status, 0);
		}
		pid_ = -1;
		return status;
	}

private:
	pid_t pid_ = -1;
	int pipe_ = -1;
};

class WorkerTest : public DebugFixture
{
protected:
	// Status of the last record of a worker that is given this answer.
	std::int32_t status_of(const HttpAnswer &answer, std::int32_t timeout = 30)
	{
		syslog.clear();
		server.on("/f", answer);
		Worker worker(server.url("/f"), timeout);
		const auto records = worker.records();
		EXPECT_EQ(worker.end(), 0);
		if (records.empty()) {
			ADD_FAILURE() << "no record came";
			return -1;
		}
		for (const fwupdate::ProgressRecord &record : records) {
			EXPECT_TRUE(record.status == 0 || &record == &records.back());
		}
		EXPECT_EQ(records.back().received, records.back().total);
		return records.back().status;
	}

	// Gives a download up when `put_file` has replaced the file that it goes into.
	void give_up_once_replaced(const std::function<void()> &put_file)
	{
		server.on("/f", answer("image").in_pieces(2).hold());
		Worker worker(server.url("/f"));
		server.release();
		ASSERT_TRUE(server.wait_for_pieces("/f", 1));
		ASSERT_TRUE(wait_until_exists(TARGET));
		unlink(TARGET);
		put_file();
		worker.give_up();
		EXPECT_EQ(worker.end(), 0);
	}

	HttpServer server;
};

} // namespace router_test
