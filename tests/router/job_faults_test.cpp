// SPDX-License-Identifier: ISC
// Processes that go away, stop or come back while an update is in one of its phases, row by row of
// docs/reliability.md: the daemon itself, its caller, the broker.
#include <csignal>
#include <optional>

#include "router/update_fixture.h"
#include "support/fault_row.h"

using namespace router_test;

namespace
{

enum class Phase {
	idle,
	probing,
	querying,
	retry_wait,
	connected,
	receiving,
	checking,
	recording,
	delay,
	installing,
};

struct JobFault {
	const char *name;
	const char *when;
	Phase phase;
};

void PrintTo(const JobFault &row, std::ostream *stream)
{
	*stream << row.when;
}

const std::vector<JobFault> phases = {
	{"idle", "while nothing is to be done", Phase::idle},
	{"probing", "while a tool is asked for a fact", Phase::probing},
	{"querying", "while the manifest is awaited", Phase::querying},
	{"retry_wait", "while a start that failed waits for its second", Phase::retry_wait},
	{"connected", "while the firmware's first byte is awaited", Phase::connected},
	{"receiving", "in the middle of the download", Phase::receiving},
	{"checking", "while the image is checked", Phase::checking},
	{"recording", "while the boot partition is recorded", Phase::recording},
	{"delay", "during the delay", Phase::delay},
	{"installing", "between the answer and the installer", Phase::installing},
};

// Those that end by themselves, when a time is over.
bool is_timed(Phase phase)
{
	return phase == Phase::retry_wait || phase == Phase::delay;
}

// The answer is sent before the installer's shell starts.
bool is_answered(Phase phase)
{
	return phase == Phase::installing;
}

// Those in which a caller waits.
std::vector<JobFault> phases_of_a_job()
{
	return {phases.begin() + 1, phases.end() - 1};
}

constexpr const char *factory_tool = "/usr/sbin/qor_factory";
constexpr const char *fwtool = "/usr/bin/fwtool";
constexpr const char *real_fwtool = "/var/real-fwtool";

class JobFaults : public UpdateTest, public testing::WithParamInterface<JobFault>
{
protected:
	void SetUp() override
	{
		UpdateTest::SetUp();
		image_ = good_image(20000);
	}

	// A tool that waits at the gate and then does its work.
	void gate_tool(const std::string &path, const std::string &work)
	{
		files.install_recording_tool(path, "read -r line <" + gate_.path() + "\n" + work);
	}

	void prepare(Phase phase)
	{
		switch (phase) {
		case Phase::probing:
			gate_tool(factory_tool, "echo AB12345");
			break;
		case Phase::retry_wait:
			break_starts(1, 1);
			break;
		case Phase::checking:
			image_ = with_metadata(noise(4096), metadata_json({router_model()}));
			files.write(real_fwtool, read_file(fwtool), 0755);
			gate_tool(fwtool, std::string("exec ") + real_fwtool + " \"$@\"");
			break;
		case Phase::recording:
			gate_tool(setenv_tool, "exit 0");
			break;
		case Phase::installing:
			gate_tool(sleep_tool, "exit 0");
			break;
		default:
			break;
		}
	}

	HttpAnswer firmware_answer(Phase phase) const
	{
		switch (phase) {
		case Phase::connected:
			return answer(image_).hold_all();
		case Phase::receiving:
			return answer(image_).cut_at({10000}).hold();
		default:
			return answer(image_);
		}
	}

	void serve(Phase phase, const HttpAnswer &firmware_bytes)
	{
		offer(firmware_bytes);
		if (phase == Phase::querying) {
			const std::string manifest = to_xml({.url = server.url("/firmware.bin")});
			server.on(manifest_path, answer(manifest).hold());
		}
	}

	static Fields arguments(Phase phase)
	{
		if (phase == Phase::retry_wait) {
			return {int32_field("attempts", 3)};
		}
		if (phase == Phase::delay) {
			return {int32_field("delay", 1)};
		}
		return {};
	}

	bool reached(Phase phase)
	{
		switch (phase) {
		case Phase::probing:
			return files.wait_for_tool_calls(factory_tool, 1);
		case Phase::querying:
			return server.wait_for_requests(manifest_path, 1);
		case Phase::retry_wait:
			return syslog.wait_for("Error on reading tmpfs") &&
			       daemon().state().status == 0; // the handler is over
		case Phase::connected:
			return server.wait_for_requests(firmware, 1);
		case Phase::receiving:
			server.release();
			return server.wait_for_pieces(firmware, 1);
		case Phase::checking:
			return files.wait_for_tool_calls(fwtool, 1);
		case Phase::recording:
			return files.wait_for_tool_calls(setenv_tool, 1);
		case Phase::delay:
			return daemon().wait_for_state("WAIT_DELAY");
		case Phase::installing:
			return files.wait_for_tool_calls(sleep_tool, 1);
		default:
			return true;
		}
	}

	// Starts an update and returns when it is in that phase, which lasts until go_on().
	void reach(Phase phase)
	{
		prepare(phase);
		serve(phase, firmware_answer(phase));
		if (is_timed(phase)) {
			clock.stop();
		}
		start_daemon({"--debug"}, FakeClock::settings());
		if (phase != Phase::idle) {
			caller_.emplace(daemon().start_update(arguments(phase)));
		}
		ASSERT_TRUE(reached(phase));
		if (is_answered(phase)) {
			ASSERT_EQ(caller_->wait().messages, 1);
		}
	}

	// Whatever the phase waits for happens.
	void go_on()
	{
		gate_.open();
		server.release_all();
		clock.go_on();
	}

	// What the caller has by now: the answer, or nothing.
	void expect_answer_only_if(bool answered)
	{
		if (!caller_) {
			return;
		}
		const Reply reply = caller_->wait(milliseconds(0));
		if (answered) {
			expect_outcome(reply, {});
		} else {
			EXPECT_EQ(reply.messages, 0);
			EXPECT_NE(reply.status, 0); // when the bus has gone, an error
		}
	}

	// No daemon and no worker, which would keep the next daemon from starting.
	void expect_all_ended()
	{
		const bool none_left = eventually([this] {
			for (const ProcessEntry &entry : new_processes()) {
				if (entry.name == "fwupdate") {
					return false;
				}
			}
			return true;
		});
		EXPECT_TRUE(none_left);
	}

	// The next daemon knows nothing of the job, and updates.
	void expect_restart_updates()
	{
		const std::size_t installed = files.tool_calls(installer).size();
		image_ = good_image();
		offer(answer(image_));
		for (int tool = 0; tool < 4; tool++) {
			gate_.open();
		}
		start_daemon();
		EXPECT_EQ(daemon().state_name(), "NONE");
		expect_outcome(daemon().update(), {});
		EXPECT_TRUE(files.wait_for_tool_calls(installer, installed + 1));
		may_leave_image = true;
	}

	// After the end of the daemon: what it and its worker leave in /tmp.
	void expect_left(Phase phase)
	{
		expect_all_ended();
		EXPECT_EQ(exists(image_path), leaves_image(phase));
		if (phase == Phase::installing) {
			EXPECT_TRUE(files.wait_for_tool_calls(installer, 1));
		} else {
			EXPECT_EQ(files.tool_calls(installer), Calls{});
		}
	}

	static bool leaves_image(Phase phase)
	{
		return phase >= Phase::checking;
	}

	static std::string left_text(Phase phase)
	{
		if (phase == Phase::installing) {
			return "the image, which is installed";
		}
		return leaves_image(phase) ? "the image, not installed" : "nothing";
	}

	static std::string end_text(Phase phase)
	{
		if (is_answered(phase)) {
			return "the answer had come";
		}
		return std::string(phase == Phase::idle ? "" : "no answer; ") +
		       "the next daemon updates";
	}

	Gate gate_;
	std::string image_;
	std::optional<PendingCall> caller_;
};

class KilledDaemon : public JobFaults
{
};

TEST_P(KilledDaemon, LeavesWhatItHadAndTheNextOneUpdates)
{
	const JobFault &row = GetParam();
	record({.fault = std::string("SIGKILL to the daemon ") + row.when + ".",
		.caller = end_text(row.phase),
		.left = left_text(row.phase)});
	reach(row.phase);
	EXPECT_EQ(daemon().kill().signal, SIGKILL);
	EXPECT_TRUE(wait_for_object_gone("fwupdate"));
	expect_answer_only_if(is_answered(row.phase));
	go_on();
	expect_left(row.phase);
	expect_restart_updates();
}

INSTANTIATE_TEST_SUITE_P(Matrix, KilledDaemon, testing::ValuesIn(phases), case_name);

class TerminatedDaemon : public JobFaults
{
};

// What blocks the daemon is waited for. A download that has begun by then is given up.
TEST_P(TerminatedDaemon, EndsInOrderAndTheNextOneUpdates)
{
	const JobFault &row = GetParam();
	record({.fault = std::string("SIGTERM to the daemon ") + row.when + ".",
		.caller = end_text(row.phase),
		.left = left_text(row.phase)});
	reach(row.phase);
	if (row.phase < Phase::connected) {
		server.on(firmware, answer(image_).hold_all());
	}
	daemon().process().signal(SIGTERM);
	gate_.open();
	if (row.phase == Phase::querying) {
		server.release();
	}
	const ExitStatus end = daemon().process().wait();
	EXPECT_TRUE(end.ended);
	EXPECT_EQ(end.code, 0);
	EXPECT_TRUE(wait_for_object_gone("fwupdate"));
	expect_answer_only_if(is_answered(row.phase));
	server.release_all();
	expect_left(row.phase);
	expect_restart_updates();
}

INSTANTIATE_TEST_SUITE_P(Matrix, TerminatedDaemon, testing::ValuesIn(phases), case_name);

class StoppedDaemon : public JobFaults
{
};

TEST_P(StoppedDaemon, GoesOnWhereItWas)
{
	const JobFault &row = GetParam();
	record({.fault = std::string("SIGSTOP, then SIGCONT to the daemon ") + row.when + ".",
		.caller = "`update`: code 0",
		.left = "the installed image"});
	reach(row.phase);
	stop_daemon();
	if (row.phase == Phase::idle) {
		caller_.emplace(daemon().start_update());
	}
	go_on();
	daemon().process().signal(SIGCONT);
	expect_outcome(caller_->wait(), {});
	expect_installed();
}

INSTANTIATE_TEST_SUITE_P(Matrix, StoppedDaemon, testing::ValuesIn(phases), case_name);

class MissingCaller : public JobFaults
{
};

TEST_P(MissingCaller, DoesNotStopTheUpdate)
{
	const JobFault &row = GetParam();
	record({.fault = std::string("The caller goes away ") + row.when + ".",
		.caller = "`state`: WAIT_DELAY when the update is done",
		.left = "the installed image"});
	reach(row.phase);
	caller_->abandon();
	go_on();
	expect_installed();
	EXPECT_TRUE(daemon().wait_for_state("WAIT_DELAY"));
}

INSTANTIATE_TEST_SUITE_P(Matrix, MissingCaller, testing::ValuesIn(phases_of_a_job()), case_name);

class RestartedBroker : public JobFaults
{
protected:
	void restart_broker()
	{
		bus->stop_routerd();
		bus->kill_broker();
		bus->start_broker();
		bus->start_routerd();
	}
};

TEST_P(RestartedBroker, IsMetAgainAndTheUpdateGoesOn)
{
	const JobFault &row = GetParam();
	record({.fault = std::string("The broker is killed and started again ") + row.when + ".",
		.caller = std::string(row.phase == Phase::idle ? "`update`: code 0"
				      : is_answered(row.phase) ? "the answer had come"
							       : "no answer") +
			  "; the daemon is back on the bus",
		.left = "the installed image"});
	reach(row.phase);
	restart_broker();
	go_on();
	EXPECT_TRUE(wait_for_object("fwupdate"));
	if (row.phase == Phase::idle) {
		expect_outcome(daemon().update(), {});
	}
	expect_installed();
	expect_answer_only_if(is_answered(row.phase));
	EXPECT_TRUE(daemon().wait_for_state("WAIT_DELAY"));
}

INSTANTIATE_TEST_SUITE_P(Matrix, RestartedBroker, testing::ValuesIn(phases), case_name);

class KilledWorker : public JobFaults
{
};

TEST_P(KilledWorker, IsAFailedDownload)
{
	const JobFault &row = GetParam();
	record({.fault = std::string("SIGKILL to the worker ") + row.when + ".",
		.caller = "`update`: code 2, nothing logged"});
	reach(row.phase);
	::kill(worker_of_download(1), SIGKILL);
	expect_outcome(caller_->wait(), {.code = 2, .text = download_failed});
	EXPECT_TRUE(syslog.lines().empty());
	EXPECT_EQ(daemon().state_name(), "NONE");
	expect_not_installed();
}

INSTANTIATE_TEST_SUITE_P(Matrix, KilledWorker,
			 testing::Values(phases[static_cast<std::size_t>(Phase::connected)],
					 phases[static_cast<std::size_t>(Phase::receiving)]),
			 case_name);

} // namespace
