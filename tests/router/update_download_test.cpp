// SPDX-License-Identifier: ISC
// One download attempt of the update job: progress, what counts as the whole file, what is logged
// and left behind when it fails.
#include <csignal>

#include "router/update_fixture.h"

using namespace router_test;

namespace
{

class UpdateDownload : public UpdateTest
{
};

std::string logged(const SyslogCatcher &syslog)
{
	std::string all;
	for (const LogLine &line : syslog.lines()) {
		all += "<" + line.text + ">";
	}
	return all;
}

Fields plain_state(const std::string &name)
{
	return {string_field("state", name), string_field("message", "")};
}

Fields state_with_progress(std::int64_t total, std::int64_t now)
{
	Fields fields = plain_state("FIRMWARE_CONNECT");
	fields.push_back(
		table_field("progress", {int64_field("total", total), int64_field("now", now)}));
	return fields;
}

TEST_F(UpdateDownload, LeavesTheImageInTmpByteForByte)
{
	const std::string image = good_image(300000);
	offer(answer(image).in_pieces(7));
	start_daemon();
	expect_outcome(daemon().update(), {});
	EXPECT_EQ(read_file(image_path), image);
	expect_installed();
	EXPECT_FALSE(exists(archive_path));
}

TEST_F(UpdateDownload, ReplacesAnOlderLongerFile)
{
	const std::string image = good_image();
	files.write(image_path, std::string(100000, 'o'));
	offer(answer(image));
	start_daemon();
	expect_outcome(daemon().update(), {});
	EXPECT_EQ(read_file(image_path), image);
	expect_installed();
}

TEST_F(UpdateDownload, ShowsNoProgressBeforeTheSizeIsKnown)
{
	offer(silence());
	start_daemon();
	PendingCall pending = daemon().start_update();
	ASSERT_TRUE(server.wait_for_requests(firmware, 1));
	EXPECT_EQ(daemon().state().fields, plain_state("FIRMWARE_CONNECT"));
	EXPECT_FALSE(pending.finished());
	::kill(worker_of_download(1), SIGKILL);
	expect_outcome(pending.wait(), {.code = 2, .text = download_failed});
}

TEST_F(UpdateDownload, ShowsBytesToComeAndBytesSoFar)
{
	const std::string image = good_image(5000);
	offer(answer(image).cut_at({1000, 3500}).hold());
	start_daemon();
	PendingCall pending = daemon().start_update();
	const auto total = static_cast<std::int64_t>(image.size());
	ASSERT_TRUE(daemon().wait_for_progress(0));
	EXPECT_EQ(daemon().state().fields, state_with_progress(total, 0));
	server.release();
	ASSERT_TRUE(daemon().wait_for_progress(1000));
	EXPECT_EQ(daemon().state().fields, state_with_progress(total, 1000));
	server.release_all();
	expect_outcome(pending.wait(), {});
	// The last record is not shown any longer.
	EXPECT_EQ(daemon().state().fields, plain_state("WAIT_DELAY"));
	expect_installed();
}

TEST_F(UpdateDownload, FailsForAnAddressThatCannotBeUsed)
{
	struct {
		std::string url;
		const char *log;
	} const cases[] = {
		{"http://127.0.0.1:" + std::to_string(unused_port()) + "/x", "connect to server"},
		{"nonsense://127.0.0.1/x", "Unsupported protocol"},
		{"http://127.0.0.1:99999/x", "Unable to download firmware: "},
		{"file:///tmp/there/is/none", "Unable to download firmware: "},
		{" ", "Unable to download firmware: "},
	};
	start_daemon();
	for (const auto &row : cases) {
		SCOPED_TRACE(row.url);
		syslog.clear();
		Manifest manifest;
		manifest.url = row.url;
		offer(manifest);
		expect_outcome(daemon().update(), {.code = 2, .text = download_failed});
		EXPECT_EQ(syslog.count(row.log), 1u);
		expect_not_installed();
	}
}

TEST_F(UpdateDownload, FailureIsLoggedByTheWorkerNotByTheDaemon)
{
	offer(answer(404, ""));
	start_daemon();
	daemon().update();
	const auto line = syslog.wait_for("Unable to download firmware");
	ASSERT_TRUE(line.has_value());
	EXPECT_EQ(line->ident, "fwupdate");
	EXPECT_EQ(line->priority, 14);
	EXPECT_NE(line->pid, 0);
	EXPECT_NE(line->pid, daemon().pid());
}

// What the worker logs stays in its own process; the daemon's last line is one of before.
TEST_F(UpdateDownload, FailureIsAnsweredWithTheDaemonsLastLogLine)
{
	const std::string line = "Partition in 'bootpart' is wrong, try find current partition";
	files.set_boot_environment({"bootpart=gone"});
	offer(answer(404, ""));
	start_daemon();
	expect_outcome(daemon().update(), {.code = 2, .text = line});
	EXPECT_EQ(logged(syslog), "<" + line +
					  "><Unable to download firmware: "
					  "HTTP response code said error>");
}

TEST_F(UpdateDownload, WorkerHoldsNothingOfTheBusOrTheLoop)
{
	offer(silence());
	start_daemon();
	PendingCall pending = daemon().start_update();
	const pid_t worker = worker_of_download(1);
	const auto daemons = open_descriptors(daemon().pid());
	for (const auto &[number, target] : open_descriptors(worker)) {
		if (number <= 2) {
			continue;
		}
		for (const auto &[other, shared] : daemons) {
			// The two ends of the progress pipe have one name.
			EXPECT_TRUE(target != shared || target.starts_with("pipe:"))
				<< number << " is " << target;
		}
		EXPECT_NE(target, "anon_inode:[eventpoll]");
	}
	::kill(worker, SIGTERM); // the loop's handler would keep it alive
	EXPECT_EQ(code_of(pending.wait()), 2);
	expect_nothing_leaked();
}

} // namespace
