// SPDX-License-Identifier: ISC
#include "base/shell.h"

#include <csignal>
#include <cstring>
#include <string>
#include <unistd.h>

#include "base/guards.h"
#include "base/log.h"
#include "base/records.h"
#include "support/debug_fixture.h"
#include "support/refusals.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

class Shell : public DebugFixture
{
protected:
	std::string probe(const char *command)
	{
		std::memset(field, '#', sizeof(field));
		run_probe(command, field, sizeof(field), "Error on reading it\n");
		return field;
	}

	char field[8];
};

} // namespace

TEST_F(Shell, ProbeKeepsTheFirstLineWithItsLineFeed)
{
	EXPECT_EQ(probe("echo one; echo two"), "one\n");
	EXPECT_EQ(probe("printf one"), "one");
	EXPECT_EQ(probe("printf 'one\\r\\n'"), "one\r\n");
	EXPECT_EQ(probe("echo"), "\n");
	EXPECT_TRUE(syslog.lines().empty());
}

TEST_F(Shell, ProbeCutsAnOverlongLineToTheField)
{
	EXPECT_EQ(probe("echo 1234567890"), "1234567");
	EXPECT_EQ(probe("printf 1234567"), "1234567");
	EXPECT_EQ(probe("echo 123456"), "123456\n");
	EXPECT_TRUE(syslog.lines().empty());
}

TEST_F(Shell, ProbeFillsTheRestOfTheFieldWithZeros)
{
	probe("printf ab");
	EXPECT_EQ(std::string(field, sizeof(field)), std::string("ab\0\0\0\0\0\0", 8));
}

TEST_F(Shell, ProbeOfASilentCommandIsEmptyAndLogged)
{
	for (const char *command :
	     {"true", "false", "no-such-tool 2>/dev/null", "echo x >/dev/null"}) {
		syslog.clear();
		EXPECT_EQ(probe(command), "") << command;
		ASSERT_EQ(syslog.lines().size(), 1u) << command;
		EXPECT_EQ(syslog.lines()[0].text, "Error on reading it");
	}
}

TEST_F(Shell, ProbeTakesTheOutputOfACommandThatFails)
{
	EXPECT_EQ(probe("echo ok; exit 3"), "ok\n");
	EXPECT_TRUE(syslog.lines().empty());
}

TEST_F(Shell, ProbeThatCannotBeStartedIsEmptyAndLogged)
{
	with_processes_refused([&] { EXPECT_EQ(probe("echo one"), ""); });
	EXPECT_STREQ(update_context.message, "Error on reading it\n");
	EXPECT_EQ(std::string(field, sizeof(field)), std::string(8, '\0'));
}

TEST_F(Shell, FailureTextIsNoFormat)
{
	run_probe("true", field, sizeof(field), "100%s\n");
	EXPECT_STREQ(update_context.message, "100%s\n");
}

TEST_F(Shell, ProbeDoesNotSpinOnAStaleInterruption)
{
	errno = EINTR;
	EXPECT_EQ(probe("true"), "");
	errno = EINTR;
	EXPECT_EQ(probe("echo a"), "a\n");
}

TEST_F(Shell, InterruptedReadIsRepeated)
{
	// A handler without SA_RESTART, as the event loop installs them, and a child that
	// interrupts the read many times before it prints.
	struct sigaction interrupt = {};
	struct sigaction before;
	interrupt.sa_handler = [](int) {
	};
	sigaction(SIGUSR1, &interrupt, &before);
	const std::string command = "i=0; while [ $((i += 1)) -lt 200 ]; do kill -USR1 " +
				    std::to_string(getpid()) + "; done; echo late";
	EXPECT_EQ(probe(command.c_str()), "late\n");
	sigaction(SIGUSR1, &before, nullptr);
	EXPECT_TRUE(syslog.lines().empty());
}

TEST_F(Shell, ProbeLeavesNoDescriptorAndNoChild)
{
	const auto before = open_descriptors(getpid());
	probe("echo a");
	probe("true");
	EXPECT_EQ(open_descriptors(getpid()), before);
	EXPECT_TRUE(children_of(getpid()).empty());
}

TEST_F(Shell, CommandIsJudgedByItsExitStatus)
{
	EXPECT_EQ(run_command("true"), CommandResult::SUCCEEDED);
	EXPECT_EQ(run_command("exit 1"), CommandResult::FAILED);
	EXPECT_EQ(run_command("exit 255"), CommandResult::FAILED);
	EXPECT_EQ(run_command("no-such-tool 2>/dev/null"), CommandResult::FAILED);
}

TEST_F(Shell, CommandWithoutAProcessHasNotSucceeded)
{
	CommandResult result = CommandResult::SUCCEEDED;
	with_processes_refused([&result] { result = run_command("true"); });
#ifdef __GLIBC__ // answers as when the shell is not found
	EXPECT_EQ(result, CommandResult::FAILED);
#else
	EXPECT_EQ(result, CommandResult::NOT_RUN);
#endif
}

TEST_F(Shell, CommandThatASignalEndedCountsAsSucceeded)
{
	EXPECT_EQ(run_command("kill -KILL $$"), CommandResult::SUCCEEDED);
}

TEST_F(Shell, CommandOfUnknownEndIsToldApart)
{
	// With SIGCHLD ignored nobody can learn how the shell ended.
	const auto before = std::signal(SIGCHLD, SIG_IGN);
	const CommandResult result = run_command("true");
	std::signal(SIGCHLD, before);
	EXPECT_EQ(result, CommandResult::NOT_RUN);
}

TEST_F(Shell, ReadLineStopsAtTheEndOfTheFile)
{
	files.write("/tmp/lines", "one\ntwo");
	const StreamGuard guard(std::fopen("/tmp/lines", "r"));
	char line[8];
	errno = EINTR;
	EXPECT_TRUE(read_line(guard.get(), line, sizeof(line)));
	EXPECT_STREQ(line, "one\n");
	EXPECT_TRUE(read_line(guard.get(), line, sizeof(line)));
	EXPECT_STREQ(line, "two");
	errno = EINTR;
	EXPECT_FALSE(read_line(guard.get(), line, sizeof(line)));
}
