// SPDX-License-Identifier: ISC
// An update job under the microscope: its record, a real pipe whose other end the test holds, and
// a real event loop of which the test runs single passes. Whole updates are in tests/router.
#pragma once

#include <cstdio>
#include <fcntl.h>
#include <limits>
#include <unistd.h>

#include "base/bus.h"
#include "base/log.h"
#include "base/records.h"
#include "base/update_error.h"
#include "daemon/update_job.h"
#include "daemon/update_method.h"
#include "support/fixture.h"

namespace router_test
{

using namespace fwupdate;

inline constexpr const char *image_path = "/tmp/fwupdate.bin";
inline constexpr const char *installer = "/sbin/sysupgrade";
inline constexpr std::int32_t smallest = std::numeric_limits<std::int32_t>::min();
inline constexpr std::int32_t largest = std::numeric_limits<std::int32_t>::max();

// One pass that does not wait.
inline void run_loop()
{
	uloop_run_timeout(0);
}

class UpdateJobFixture : public RouterFixture
{
protected:
	void SetUp() override
	{
		RouterFixture::SetUp();
		bus_ = std::make_unique<BusServices>(BusServices::Which::all);
		uloop_init();
		bus_connection = ubus_connect(nullptr);
		ASSERT_NE(bus_connection, nullptr);
		debug_mode = 1;
		update_context = {};
		update_manifest = {};
		no_job();
		files.install_recording_tool("/bin/sleep");
		files.install_recording_tool(installer);
		files.install_recording_tool("/usr/sbin/fw_setenv");
	}

	void TearDown() override
	{
		uloop_timeout_cancel(&job.timer);
		if (job.watch.fd >= 0) {
			uloop_fd_delete(&job.watch);
			close(job.watch.fd);
		}
		if (worker_end_ >= 0) {
			close(worker_end_);
		}
		update_context = {};
		bus_generation = 0;
		debug_mode = 0;
		ubus_free(bus_connection);
		bus_connection = nullptr;
		uloop_done();
		bus_.reset();
		RouterFixture::TearDown();
	}

	// Between jobs. A request that came over the bus has no descriptor with it, which is -1.
	void no_job() const
	{
		job.watch.fd = -1;
		job.request.fd = -1;
	}

	// A job in its download, with the worker's end of the pipe in this test's hands.
	void begin_download(std::int32_t attempts)
	{
		int ends[2];
		ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
		worker_end_ = ends[1];
		no_job();
		job.attempts = attempts;
		job.delay = 600;
		job.timeout = 30;
		job.active = true;
		job.timer.cb = on_job_timeout;
		job.watch.cb = on_progress;
		job.watch.fd = ends[0];
		uloop_timeout_set(&job.timer, 30000);
		ASSERT_EQ(uloop_fd_add(&job.watch, ULOOP_READ), 0);
	}

	void report(const void *bytes, std::size_t size) const
	{
		ASSERT_EQ(write(worker_end_, bytes, size), static_cast<ssize_t>(size));
	}
	void report(const std::vector<ProgressRecord> &records) const
	{
		report(records.data(), records.size() * sizeof(ProgressRecord));
	}
	void end_reports()
	{
		close(worker_end_);
		worker_end_ = -1;
	}

	// Every start fails from now on, so that a retry shows itself as the wait of a second.
	void break_starts()
	{
		files.install_recording_tool("/bin/df");
	}
	// Starts succeed; the download itself fails at once. The worker is a fork of this very
	// process: what is unprinted now it would print once more.
	void allow_starts()
	{
		std::fflush(stdout);
		const std::string url = "http://127.0.0.1:" + std::to_string(unused_port());
		url.copy(update_manifest.url, sizeof(update_manifest.url) - 1);
	}

	// As a successful check leaves it.
	static void offer_update()
	{
		update_context.state = UpdateState::XML_DONE;
		update_context.need_update = 1;
	}

	void put_good_image()
	{
		files.write(image_path, make_uimage(noise(500), {.name = router_model()}));
		// The end of the program that made it may cost the loop a pass of its own.
		run_loop();
	}

	void expect_finished(std::int32_t result) const
	{
		EXPECT_EQ(update_context.result, result);
		EXPECT_EQ(update_context.state, UpdateState::NONE);
		EXPECT_FALSE(exists(image_path));
		expect_cleared();
	}

	void expect_cleared() const
	{
		EXPECT_EQ(job.watch.fd, -1);
		EXPECT_EQ(job.watch.cb, nullptr);
		EXPECT_FALSE(job.watch.registered);
		EXPECT_EQ(job.timer.cb, nullptr);
		EXPECT_FALSE(job.timer.pending);
		EXPECT_EQ(job.request.object, 0u);
		EXPECT_EQ(job.progress.total, 0u);
		EXPECT_EQ(job.progress.received, 0u);
		EXPECT_EQ(job.progress.status, 0);
		EXPECT_EQ(job.job_result, 0);
		EXPECT_EQ(job.timeout, 0);
		EXPECT_EQ(job.attempts, 0);
		EXPECT_EQ(job.delay, 0);
		EXPECT_FALSE(job.force || job.active || job.downloaded || job.install);
	}

	void expect_waiting_for_a_retry(std::int32_t attempts)
	{
		EXPECT_TRUE(job.active);
		EXPECT_EQ(job.attempts, attempts);
		EXPECT_EQ(job.job_result, ERROR_DOWNLOAD);
		EXPECT_EQ(job.watch.fd, -1);
		EXPECT_EQ(job.timer.cb, on_job_timeout);
		const std::int64_t left = uloop_timeout_remaining64(&job.timer);
		EXPECT_GT(left, 500);
		EXPECT_LE(left, 1000);
	}

	void expect_delay_of_the_job()
	{
		EXPECT_EQ(update_context.state, UpdateState::WAIT_DELAY);
		EXPECT_TRUE(job.install);
		EXPECT_TRUE(job.timer.pending);
		EXPECT_EQ(job.timer.cb, on_install);
		EXPECT_EQ(job.watch.fd, -1);
	}

	UpdateJob &job = update_context.job;
	SyslogCatcher syslog;

private:
	std::unique_ptr<BusServices> bus_;
	int worker_end_ = -1;
};

inline bool same(const ProgressRecord &left, const ProgressRecord &right)
{
	return left.total == right.total && left.received == right.received &&
	       left.status == right.status;
}

} // namespace router_test
