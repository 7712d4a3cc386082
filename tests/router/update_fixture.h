// SPDX-License-Identifier: ISC
// What the tests of the update job share: a router whose installer, fw_setenv and sleep only write
// down how they were called (so that a hand-over takes no two seconds), and one place for what an
// answer, an installation and a failed start look like.
#pragma once

#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/fake_clock.h"
#include "support/fixture.h"

namespace router_test
{

inline constexpr const char *image_path = "/tmp/fwupdate.bin";
inline constexpr const char *archive_path = "/tmp/fwupdate.zip";
inline constexpr const char *installer = "/sbin/sysupgrade";
inline constexpr const char *setenv_tool = "/usr/sbin/fw_setenv";
inline constexpr const char *sleep_tool = "/bin/sleep";
inline constexpr const char *df_tool = "/bin/df";
inline constexpr const char *firmware = "/firmware.bin";
inline constexpr const char *manifest_path = "/update.xml";

// Times 1000 these wrap around in 32 bits: to 704 ms and 1704 ms. The worker is given the whole
// number, so that its own limit never ends it.
inline constexpr std::int32_t seven_tenths = 4294968;
inline constexpr std::int32_t under_two = 4294969;

inline constexpr const char *no_error = "No Error";
inline constexpr const char *download_failed = "Error on getting firmware";
inline constexpr const char *image_refused = "Error on checking firmware";
inline constexpr const char *query_failed = "Error on checking update avialability";
inline constexpr const char *not_recorded = "Can't set boot partition via fw_setenv";
inline constexpr const char *already_updating = "Already updating";

// What an answer to `update` says; the offer of RouterTest::offer() by default.
struct Outcome {
	int code = 0;
	std::string text = no_error;
	std::string force = "0";
	std::string version = "2.0";
	std::string buildtime = "190000000";
};

inline void expect_outcome(const Reply &reply, const Outcome &outcome)
{
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.messages, 1);
	EXPECT_EQ(reply.fields, (Fields{string_field("version", outcome.version),
					string_field("buildtime", outcome.buildtime),
					string_field("force_update", outcome.force),
					string_field("error_code", std::to_string(outcome.code)),
					string_field("error_message", outcome.text)}));
}

// Nothing has come by now, nor will it when the connection is gone.
inline void expect_no_answer(PendingCall &call)
{
	EXPECT_EQ(call.wait(milliseconds(0)).messages, 0);
}

inline int code_of(const Reply &reply)
{
	const std::string code = text_of(reply.fields, "error_code");
	return code.empty() ? -1 : std::stoi(code);
}

class UpdateTest : public RouterTest
{
protected:
	using Calls = std::vector<std::vector<std::string>>;

	void SetUp() override
	{
		RouterTest::SetUp();
		files.install_recording_tool(sleep_tool);
		files.install_recording_tool(installer);
		files.install_recording_tool(setenv_tool);
	}

	// A worker may take a moment longer than the answer that it led to.
	void TearDown() override
	{
		if (!may_crash && !may_leave_workers) {
			EXPECT_TRUE(daemon().wait_for_workers(0));
		}
		RouterTest::TearDown();
	}

	// For this daemon, time passes only when the test says so.
	Daemon &start_without_time()
	{
		clock.stop();
		return start_daemon({"--debug"}, FakeClock::settings());
	}

	// Returns when the daemon has done what is due: it looks at its clock after the first call.
	void await_due_timers()
	{
		EXPECT_EQ(daemon().state().status, 0);
		EXPECT_EQ(daemon().state().status, 0);
	}

	Manifest nothing_newer() const
	{
		return {.buildtime = router_builddate()};
	}

	void offer_one_after_another(const std::vector<HttpAnswer> &answers)
	{
		offer();
		server.on(firmware, answers);
	}

	Reply update(std::int32_t attempts, const Fields &more = {})
	{
		Fields arguments = {int32_field("attempts", attempts)};
		arguments.insert(arguments.end(), more.begin(), more.end());
		return daemon().update(arguments);
	}

	void stop_daemon()
	{
		const pid_t pid = daemon().pid();
		daemon().process().signal(SIGSTOP);
		EXPECT_TRUE(eventually([&] {
			for (const ProcessEntry &entry : all_processes()) {
				if (entry.pid == pid) {
					return entry.state == 'T';
				}
			}
			return false;
		}));
	}

	FakeClock clock;

	std::size_t downloads() const
	{
		return server.requests(firmware).size();
	}

	std::size_t queries() const
	{
		return server.requests(manifest_path).size();
	}

	// The installer has been started, once, for the downloaded image, which is still there.
	void expect_installed()
	{
		may_leave_image = true;
		EXPECT_TRUE(files.wait_for_tool_calls(installer, 1));
		EXPECT_EQ(files.tool_calls(installer), (Calls{{installer, "-F", image_path}}));
		EXPECT_TRUE(exists(image_path));
	}

	// The image goes right after the answer.
	void expect_not_installed() const
	{
		EXPECT_EQ(files.tool_calls(installer), Calls{});
		EXPECT_TRUE(wait_until_gone(image_path));
	}

	void expect_recorded(const std::string &partition) const
	{
		EXPECT_EQ(files.tool_calls(setenv_tool),
			  (Calls{{setenv_tool, "bootpart", partition}}));
	}

	// No download can start while `df` prints nothing: the calls from `first` to `last`,
	// counted from 1.
	void break_starts(int first, int last = 1000)
	{
		files.write("/var/df-calls", "0");
		files.install_recording_tool(df_tool, "calls=$(($(cat /var/df-calls) + 1))\n"
						      "echo $calls >/var/df-calls\n"
						      "[ $calls -lt " +
							      std::to_string(first) +
							      " ] || [ $calls -gt " +
							      std::to_string(last) +
							      " ] || exit 0\n"
							      "exec /bin/busybox df \"$@\"");
	}

	std::size_t starts() const
	{
		return files.tool_calls(df_tool).size();
	}

	// The one worker of the moment, once its download has reached the server `count` times.
	// Throws when there is none: as a process id, no number says "nobody" (0 is everybody).
	pid_t worker_of_download(std::size_t count)
	{
		if (!server.wait_for_requests(firmware, count)) {
			throw std::runtime_error("the server has seen " +
						 std::to_string(downloads()) + " downloads, not " +
						 std::to_string(count));
		}
		const std::vector<pid_t> workers = daemon().workers();
		if (workers.empty()) {
			throw std::runtime_error("the daemon has no worker");
		}
		return workers.back();
	}
};

} // namespace router_test
