// SPDX-License-Identifier: ISC
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "support/process.h"
#include "support/process_table.h"

using namespace router_test;

TEST(Process, TellsHowItEnded)
{
	EXPECT_TRUE(run({"true"}).status.success());
	EXPECT_EQ(shell("exit 7").status.code, 7);
	ExitStatus status = shell("kill -9 $$").status;
	EXPECT_EQ(status.code, -1);
	EXPECT_EQ(status.signal, SIGKILL);
	EXPECT_FALSE(status.success());
}

TEST(Process, CapturesBothStreamsAndFeedsTheInput)
{
	std::string input(300000, 'a');
	RunResult result = run({"sh", "-c", "cat; echo wrong >&2"}, input);
	EXPECT_EQ(result.output, input);
	EXPECT_EQ(result.errors, "wrong\n");
}

TEST(Process, ThrowsForAProgramThatIsNotThere)
{
	EXPECT_THROW(run({"no-such-program"}), std::runtime_error);
}

TEST(Process, KeepsItsArgvZeroAndSettings)
{
	EXPECT_EQ(run({"sh", "-c", "echo $HOME"}).output, std::string(getenv("HOME")) + "\n");
	Process printer({.words = {"sh", "-c", "echo $HOME $WORD"},
			 .settings = {"WORD=value", "HOME=/elsewhere"}});
	printer.wait();
	EXPECT_EQ(printer.output(), "/elsewhere value\n");
	// Not BusyBox's sleep, which goes by its name.
	Process named({.words = {"/a/name", "1000"}, .program = "/host/usr/bin/sleep"});
	EXPECT_EQ(command_line(named.pid()), (std::vector<std::string>{"/a/name", "1000"}));
}

TEST(Process, InheritsNothingButItsStreams)
{
	int descriptor = open("/dev/null", O_RDONLY);
	Process process({.words = {"sleep", "1000"}});
	EXPECT_THAT(
		open_descriptors(process.pid()),
		testing::UnorderedElementsAre(testing::Key(0), testing::Key(1), testing::Key(2)));
	close(descriptor);
}

TEST(Process, WaitIsBounded)
{
	Process process({.words = {"sleep", "1000"}});
	EXPECT_FALSE(process.wait(milliseconds(10)).ended);
	EXPECT_TRUE(process.running());
	EXPECT_FALSE(process.wait_for_output("x", milliseconds(10)));
	process.signal(SIGTERM);
	EXPECT_EQ(process.wait().signal, SIGTERM);
	EXPECT_FALSE(process.running());
}

TEST(Process, OutlivesNobody)
{
	pid_t pid = 0;
	{
		Process process({.words = {"sleep", "1000"}});
		pid = process.pid();
		EXPECT_TRUE(is_alive(pid));
	}
	EXPECT_FALSE(is_alive(pid));
}

TEST(ProcessTable, KnowsChildrenAndZombies)
{
	// The shell becomes a program that never collects the child it started before.
	Process parent({.words = {"sh", "-c", "sleep 0 & echo $!; exec sleep 1000"}});
	ASSERT_TRUE(parent.wait_for_output("\n"));
	pid_t child = std::stoi(parent.output());
	EXPECT_TRUE(eventually([&] { return is_zombie(child); }));
	EXPECT_FALSE(is_alive(child));
	std::vector<ProcessEntry> children = children_of(parent.pid());
	ASSERT_EQ(children.size(), 1u);
	EXPECT_EQ(children[0].pid, child);
	EXPECT_EQ(children[0].parent, parent.pid());
	EXPECT_EQ(command_line(getpid()).at(0).substr(0, 1), "/");
	EXPECT_GT(resident_kib(getpid()), 100);
}
