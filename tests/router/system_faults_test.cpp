// SPDX-License-Identifier: ISC
// No process, no pipe, no descriptor, no memory to be had, and a clock that is set, row by row of
// docs/reliability.md. What a test leaves behind is compared by its fixture.
#include <optional>
#include <sys/resource.h>

#include "router/update_fixture.h"
#include "support/fault_row.h"
#include "support/refusals.h"

using namespace router_test;

namespace
{

constexpr const char *stuck =
	"a daemon that answers further updates with code 6 until it is restarted";

class RefusedDaemon : public UpdateTest
{
protected:
	// The daemon starts under a filter and is refused nothing yet. What it runs is filtered
	// too: a signal that finds BusyBox's shell waiting for our word fails its fork, so the
	// shell is one that holds signals off meanwhile.
	void start_under(const std::vector<int> &calls,
			 const std::vector<std::string> &settings = {})
	{
		files.write("/bin/sh",
			    "#!/host/usr/bin/bash\nexec /host/usr/bin/bash --posix \"$@\"\n", 0755);
		refusals_.emplace(calls, [&] { start_daemon({"--debug"}, settings); });
	}

	// After a `check`, an update makes no call but those of its own start.
	void start_checked(const std::vector<int> &calls)
	{
		offer(answer(good_image()));
		start_under(calls);
		EXPECT_EQ(text_of(daemon().check().fields, "error_code"), "0");
	}

	void refuse(int error, std::size_t after = 0)
	{
		refusals_->refuse(daemon().pid(), error, after);
	}

	void allow()
	{
		refusals_->allow();
	}

	std::optional<LateRefusals> refusals_;
};

TEST_F(RefusedDaemon, WithoutProcessesFailsTheCheckOnly)
{
	record({.fault = "No process to be had for any tool.",
		.caller = "`check`: code 1; the next one succeeds"});
	offer();
	start_under(process_calls);
	refuse(EAGAIN);
	EXPECT_EQ(text_of(daemon().check().fields, "error_code"), "1");
	EXPECT_TRUE(syslog.contains("Error on reading cpe_sn"));
	EXPECT_TRUE(syslog.contains("Error on reading cpe_update_xml_url"));
	allow();
	EXPECT_EQ(text_of(daemon().check().fields, "error_code"), "0");
}

TEST_F(RefusedDaemon, WithoutAProcessForDfIsAFailedStart)
{
	record({.fault = "No process to be had when a download starts.",
		.caller = "`update`: code 2, \"Error on reading tmpfs\"",
		.left = stuck});
	start_checked(process_calls);
	refuse(EAGAIN);
	expect_outcome(daemon().update(), {.code = 2, .text = "Error on reading tmpfs\n"});
	allow();
	expect_outcome(daemon().update(), {.code = 6, .text = already_updating});
}

TEST_F(RefusedDaemon, WithoutAProcessForTheWorkerIsAFailedStart)
{
	record({.fault = "No process to be had for the worker.",
		.caller = "`update`: code 2, \"Error, couldn't get CURL pipe\"",
		.left = stuck});
	start_checked(process_calls);
	refuse(EAGAIN, 5); // for df, fw_printenv and the memory
	expect_outcome(daemon().update(), {.code = 2, .text = "Error, couldn't get CURL pipe\n"});
	EXPECT_EQ(syslog.texts(), (std::vector<std::string>{"Error, couldn't fork!",
							    "Error, couldn't get CURL pipe"}));
	EXPECT_EQ(daemon().state_name(), "FIRMWARE_CONNECT");
	allow();
	expect_outcome(daemon().update(), {.code = 6, .text = already_updating});
}

TEST_F(RefusedDaemon, WorkerIsStartedWhenThereIsAProcessAgain)
{
	record({.fault = "No process to be had for the first of three workers.",
		.caller = "`update`: code 0",
		.left = "the installed image"});
	start_checked(process_calls);
	refuse(EAGAIN, 5); // for df, fw_printenv and the memory
	PendingCall pending = daemon().start_update({int32_field("attempts", 3)});
	ASSERT_TRUE(syslog.wait_for("Error, couldn't get CURL pipe"));
	allow();
	expect_outcome(pending.wait(), {});
	expect_installed();
}

TEST_F(RefusedDaemon, WithoutAPipeForTheWorkerIsAFailedStart)
{
	record({.fault = "No pipe to be had for the worker.",
		.caller = "`update`: code 2, \"Error, couldn't get CURL pipe\"",
		.left = stuck});
	offer(answer(good_image()));
	start_under(pipe_calls);
	daemon().test({string_field("partition", "unlisted")});
	EXPECT_EQ(text_of(daemon().check().fields, "error_code"), "0");
	refuse(EMFILE, pipes_of_a_command); // for df
	expect_outcome(daemon().update(), {.code = 2, .text = "Error, couldn't get CURL pipe\n"});
	EXPECT_EQ(syslog.texts(), (std::vector<std::string>{"Error, couldn't open pipe!",
							    "Error, couldn't get CURL pipe"}));
	allow();
	expect_outcome(daemon().update(), {.code = 6, .text = already_updating});
}

TEST_F(RefusedDaemon, WithoutProcessesRefusesTheImage)
{
	record({.fault = "No process to be had when the image is checked.",
		.caller = "`update`: code 3, \"Bad Model [-9]\""});
	offer(answer(good_image()).hold());
	start_under(process_calls);
	PendingCall pending = daemon().start_update();
	ASSERT_TRUE(server.wait_for_requests(firmware, 1));
	refuse(EAGAIN);
	server.release_all();
	expect_outcome(pending.wait(), {.code = 3, .text = "Bad Model [-9]"});
	expect_not_installed();
	allow();
}

TEST_F(RefusedDaemon, WithoutAProcessForTheInstallerInstallsNothing)
{
	record({.fault = "No process to be had for the installer.",
		.caller = "`update`: code 0; \"Can't run sysupgrade\" is logged",
		.left = "the image, not installed"});
	clock.stop();
	offer(answer(good_image()));
	start_under(process_calls, FakeClock::settings());
	PendingCall pending = daemon().start_update({int32_field("delay", 1)});
	ASSERT_TRUE(daemon().wait_for_state("WAIT_DELAY"));
	refuse(EAGAIN);
	clock.go_on();
	expect_outcome(pending.wait(), {});
	// An answer says that the callback before it is over.
	EXPECT_EQ(daemon().state_name(), "WAIT_DELAY");
	allow();
	EXPECT_EQ(files.tool_calls(installer), Calls{});
#ifdef __GLIBC__ // answers as when the installer was started and failed; routers have musl
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{});
#else
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{"Can't run sysupgrade"});
#endif
	EXPECT_TRUE(exists(image_path));
	may_leave_image = true;
}

struct DescriptorFault {
	std::string name;
	rlim_t free;
};

void PrintTo(const DescriptorFault &row, std::ostream *stream)
{
	*stream << row.free << " descriptors free";
}

class LimitedDescriptors : public UpdateTest
{
protected:
	void limit_descriptors(rlim_t count)
	{
		const rlimit limit = {count, 1024};
		ASSERT_EQ(prlimit(daemon().pid(), RLIMIT_NOFILE, &limit, nullptr), 0);
	}

	// So many more than it has open now.
	void leave_descriptors(rlim_t free)
	{
		limit_descriptors(open_descriptors(daemon().pid()).size() + free);
	}
};

class FewDescriptors : public LimitedDescriptors,
		       public testing::WithParamInterface<DescriptorFault>
{
};

TEST_P(FewDescriptors, FailTheCheckOnly)
{
	record({.fault = "Only " + std::to_string(GetParam().free) +
			 " more descriptors to be had while the server is asked.",
		.caller = "`check`: code 1; the next one succeeds"});
	offer();
	start_daemon();
	leave_descriptors(GetParam().free);
	EXPECT_EQ(text_of(daemon().check().fields, "error_code"), "1");
	limit_descriptors(1024);
	EXPECT_EQ(text_of(daemon().check().fields, "error_code"), "0");
}

INSTANTIATE_TEST_SUITE_P(Matrix, FewDescriptors,
			 testing::Values(DescriptorFault{"none", 0}, DescriptorFault{"one", 1},
					 DescriptorFault{"two", 2}),
			 case_name);

TEST_F(LimitedDescriptors, LeaveTheJobToRetry)
{
	record({.fault = "No more descriptors to be had when the first of three downloads starts.",
		.caller = "`update`: code 0",
		.left = "the installed image"});
	offer(answer(good_image()));
	start_daemon();
	EXPECT_EQ(text_of(daemon().check().fields, "error_code"), "0");
	leave_descriptors(0);
	PendingCall pending = daemon().start_update({int32_field("attempts", 3)});
	// The log takes a descriptor, too; `state` shows the line all the same.
	ASSERT_TRUE(eventually([this] {
		return text_of(daemon().state().fields, "message") == "Error on reading tmpfs\n";
	}));
	limit_descriptors(1024);
	expect_outcome(pending.wait(), {});
	expect_installed();
}

TEST_F(LimitedDescriptors, RefuseTheImage)
{
	record({.fault = "No more descriptors to be had when the image is checked.",
		.caller = "`update`: code 3, \"Can't open image [-2]\""});
	offer(answer(good_image()).hold());
	start_daemon();
	PendingCall pending = daemon().start_update();
	ASSERT_TRUE(server.wait_for_requests(firmware, 1));
	// The pipe is closed before the image is opened: 0 is always open, 1 is too few.
	limit_descriptors(1);
	server.release_all();
	expect_outcome(pending.wait(), {.code = 3, .text = "Can't open image [-2]"});
	limit_descriptors(1024);
	expect_not_installed();
}

#ifndef __SANITIZE_ADDRESS__ // takes all memory there is for itself
struct MemoryFault {
	std::string name;
	rlim_t kib;
};

void PrintTo(const MemoryFault &row, std::ostream *stream)
{
	*stream << row.kib << " KiB free";
}

class LittleMemory : public UpdateTest, public testing::WithParamInterface<MemoryFault>
{
protected:
	void limit_memory(rlim_t bytes)
	{
		const rlimit limit = {bytes, RLIM_INFINITY};
		ASSERT_EQ(prlimit(daemon().pid(), RLIMIT_AS, &limit, nullptr), 0);
	}
};

TEST_P(LittleMemory, EndsNothing)
{
	record({.fault = "Only " + std::to_string(GetParam().kib) + " KiB more memory to be had.",
		.caller =
			"every call is answered, as a success or a failure; the next update succeeds",
		.left = "the installed image"});
	offer(answer(good_image()));
	start_daemon();
	const auto mapped = static_cast<rlim_t>(mapped_kib(daemon().pid()));
	limit_memory((mapped + GetParam().kib) * 1024);
	EXPECT_EQ(daemon().check().messages, 1);
	EXPECT_EQ(daemon().test({string_field("file", "/etc/banner")}).messages, 1);
	EXPECT_EQ(daemon().update({int32_field("attempts", 2)}).messages, 1);
	EXPECT_EQ(daemon().state().messages, 1);
	EXPECT_TRUE(daemon().running());
	limit_memory(RLIM_INFINITY);
	EXPECT_TRUE(daemon().wait_for_workers(0));
	const std::size_t installed = files.tool_calls(installer).size();
	expect_outcome(daemon().update(), {});
	EXPECT_TRUE(files.wait_for_tool_calls(installer, installed + 1));
	may_leave_image = true;
}

INSTANTIATE_TEST_SUITE_P(Matrix, LittleMemory,
			 testing::Values(MemoryFault{"none", 0}, MemoryFault{"kib_64", 64},
					 MemoryFault{"kib_256", 256}, MemoryFault{"kib_1024", 1024},
					 MemoryFault{"kib_4096", 4096}),
			 case_name);
#endif

struct ClockFault {
	std::string name;
	std::string words;
	std::int64_t seconds;
};

void PrintTo(const ClockFault &row, std::ostream *stream)
{
	*stream << row.words;
}

constexpr std::int64_t ten_years = 315360000;

class ClockThatIsSet : public UpdateTest, public testing::WithParamInterface<ClockFault>
{
protected:
	void start()
	{
		start_daemon({"--debug"}, FakeClock::settings());
	}
};

TEST_P(ClockThatIsSet, ChangesNothingAboutTheDownload)
{
	record({.fault = "The clock is set " + GetParam().words + " during a download.",
		.caller = "`state`: the progress goes on; `update`: code 0",
		.left = "the installed image"});
	offer(answer(good_image(5000)).cut_at({1000}).hold());
	start();
	PendingCall pending = daemon().start_update();
	ASSERT_TRUE(daemon().wait_for_progress(0));
	clock.set_wall_clock(GetParam().seconds);
	server.release();
	EXPECT_TRUE(daemon().wait_for_progress(1000));
	server.release_all();
	expect_outcome(pending.wait(), {});
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{});
	expect_installed();
}

TEST_P(ClockThatIsSet, ChangesNothingAboutTheQuery)
{
	record({.fault = "The clock is set " + GetParam().words + " while the manifest is awaited.",
		.caller = "`check`: code 0"});
	server.on(manifest_path, answer(to_xml({.url = "http://a/"})).hold());
	start();
	PendingCall pending("fwupdate", "check");
	ASSERT_TRUE(server.wait_for_requests(manifest_path, 1));
	clock.set_wall_clock(GetParam().seconds);
	server.release_all();
	EXPECT_EQ(text_of(pending.wait().fields, "error_code"), "0");
}

TEST_P(ClockThatIsSet, ChangesNothingAboutTheDelay)
{
	record({.fault = "The clock is set " + GetParam().words + " during the delay.",
		.caller = "`update`: code 0, when the delay is over",
		.left = "the installed image"});
	offer(answer(good_image()));
	clock.stop();
	start();
	PendingCall pending = daemon().start_update({int32_field("delay", 1)});
	ASSERT_TRUE(daemon().wait_for_state("WAIT_DELAY"));
	clock.set_wall_clock(GetParam().seconds);
	await_due_timers();
	EXPECT_FALSE(pending.finished());
	clock.go_on();
	expect_outcome(pending.wait(), {});
	expect_installed();
}

INSTANTIATE_TEST_SUITE_P(Matrix, ClockThatIsSet,
			 testing::Values(ClockFault{"forward", "ten years forward", ten_years},
					 ClockFault{"back", "ten years back", -ten_years}),
			 case_name);

} // namespace
