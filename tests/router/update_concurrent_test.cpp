// SPDX-License-Identifier: ISC
// Requests that arrive while an update job is running.
#include <csignal>

#include "router/update_fixture.h"

using namespace router_test;

namespace
{

class UpdateConcurrent : public UpdateTest
{
protected:
	// A job whose download hangs until `finish_download`.
	PendingCall start_job(const Fields &arguments = {})
	{
		offer(answer(good_image()).hold());
		start_daemon();
		PendingCall pending = daemon().start_update(arguments);
		EXPECT_TRUE(server.wait_for_requests(firmware, 1));
		return pending;
	}

	void finish_download()
	{
		server.release_all();
	}
};

TEST_F(UpdateConcurrent, SecondUpdateAsksTheServerOnceMore)
{
	PendingCall pending = start_job();
	EXPECT_EQ(code_of(daemon().update()), 6);
	EXPECT_EQ(queries(), 2u);
	EXPECT_EQ(daemon().state().fields,
		  (Fields{string_field("state", "XML_DONE"), string_field("message", "")}));
	EXPECT_EQ(code_of(daemon().update()), 6);
	EXPECT_EQ(queries(), 2u);
	finish_download();
	expect_outcome(pending.wait(), {});
	EXPECT_EQ(daemon().state_name(), "WAIT_DELAY");
	expect_installed();
}

TEST_F(UpdateConcurrent, SecondUpdateWithNothingNewerIsToldSo)
{
	PendingCall pending = start_job();
	offer(nothing_newer());
	expect_outcome(daemon().update(), {.buildtime = router_builddate()});
	expect_outcome(daemon().update({string_field("force", "1")}),
		       {.code = 6,
			.text = already_updating,
			.force = "1",
			.buildtime = router_builddate()});
	finish_download();
	// The manifest that was read last is what the answer shows.
	expect_outcome(pending.wait(), {.buildtime = router_builddate()});
	expect_installed();
}

TEST_F(UpdateConcurrent, SecondUpdateWhoseQueryFailsIsToldSo)
{
	PendingCall pending = start_job();
	server.on(manifest_path, answer(404, "gone"));
	expect_outcome(daemon().update({string_field("force", "1")}),
		       {.code = 1, .text = query_failed, .force = "1"});
	finish_download();
	expect_outcome(pending.wait(), {});
	expect_installed();
}

TEST_F(UpdateConcurrent, RefusalDoesNotTouchTheAnswerOfTheRunningJob)
{
	PendingCall pending = start_job();
	EXPECT_EQ(code_of(daemon().update({string_field("force", "1"), int32_field("delay", 600),
					   int32_field("attempts", 5), int32_field("timeout", 0)})),
		  6);
	finish_download();
	expect_outcome(pending.wait(), {});
	expect_installed();
}

TEST_F(UpdateConcurrent, RefusedUpdateChangesThePartitionThatIsRecorded)
{
	PendingCall pending = start_job({string_field("partition", "firmware")});
	EXPECT_EQ(code_of(daemon().update({string_field("partition", "rootfs")})), 6);
	finish_download();
	expect_outcome(pending.wait(), {});
	expect_recorded("rootfs");
	expect_installed();
}

TEST_F(UpdateConcurrent, BadPartitionChangesNothing)
{
	PendingCall pending = start_job({string_field("partition", "firmware")});
	EXPECT_EQ(daemon().update({string_field("partition", std::string(32, 'x'))}).status, 2);
	EXPECT_EQ(daemon().update({string_field("partition", "")}).status, 2);
	EXPECT_EQ(daemon().state_name(), "FIRMWARE_CONNECT");
	EXPECT_EQ(queries(), 1u);
	finish_download();
	expect_outcome(pending.wait(), {});
	expect_recorded("firmware");
	expect_installed();
}

TEST_F(UpdateConcurrent, RetryDownloadsFromTheAddressThatWasReadLast)
{
	PendingCall pending = start_job({int32_field("attempts", 2)});
	server.on("/newer.bin", answer(good_image()));
	offer({.version = "3.0", .buildtime = "200000000", .url = server.url("/newer.bin")});
	daemon().check();
	::kill(worker_of_download(1), SIGKILL);
	expect_outcome(pending.wait(), {.version = "3.0", .buildtime = "200000000"});
	EXPECT_EQ(downloads(), 1u);
	EXPECT_EQ(server.requests("/newer.bin").size(), 1u);
	expect_installed();
}

TEST_F(UpdateConcurrent, UpdateIsRefusedWhileAFailedStartWaits)
{
	break_starts(1, 1);
	offer(answer(good_image()));
	start_daemon();
	PendingCall pending = daemon().start_update({int32_field("attempts", 3)});
	ASSERT_EQ(daemon().state_name(), "XML_DONE");
	expect_outcome(daemon().update({string_field("partition", "kernel")}),
		       {.code = 6, .text = already_updating});
	EXPECT_EQ(queries(), 1u);
	expect_outcome(pending.wait(), {});
	expect_recorded("kernel");
	expect_installed();
}

TEST_F(UpdateConcurrent, ManyRequestsLeaveTheJobAlone)
{
	PendingCall pending = start_job({string_field("partition", "firmware")});
	std::vector<PendingCall> calls;
	for (int i = 0; i < 10; i++) {
		calls.push_back(daemon().start_update({string_field("force", "1")}));
		calls.emplace_back("fwupdate", "state");
	}
	for (std::size_t i = 0; i < calls.size(); i++) {
		const Reply reply = calls[i].wait();
		EXPECT_EQ(reply.status, 0);
		EXPECT_EQ(code_of(reply), i % 2 == 0 ? 6 : -1);
	}
	finish_download();
	expect_outcome(pending.wait(), {});
	expect_recorded("firmware");
	expect_installed();
	expect_nothing_leaked();
}

// The progress pipe is open then, beside the bus and the loop.
TEST_F(UpdateConcurrent, ToolsThatRunDuringAJobInheritNothing)
{
	PendingCall pending = start_job();
	files.write("/var/descriptors", "");
	files.install_tool("/usr/sbin/qor_factory", "for each in /realproc/$$/fd/*; do\n"
						    "readlink $each\n"
						    "done >/var/descriptors");
	const auto daemons = open_descriptors(daemon().pid());
	daemon().check();
	const std::string open = read_file("/var/descriptors");
	EXPECT_NE(open.find("/usr/sbin/qor_factory\n"), std::string::npos) << open;
	EXPECT_GT(daemons.size(), 5u);
	for (const auto &[number, target] : daemons) {
		if (number > 2) {
			EXPECT_EQ(open.find(target), std::string::npos) << number << ": " << target;
		}
	}
	finish_download();
	expect_outcome(pending.wait(), {});
	expect_installed();
}

} // namespace
