// SPDX-License-Identifier: ISC
// How the daemon starts and ends.
#include <csignal>
#include <link.h>
#include <sys/un.h>
#include <syslog.h>

#include "support/fixture.h"

using namespace router_test;

namespace
{

class Startup : public RouterTest
{
protected:
	static Process start(const std::vector<std::string> &arguments = {})
	{
		std::vector<std::string> words = {daemon_path};
		words.insert(words.end(), arguments.begin(), arguments.end());
		return Process({.words = words});
	}

	// Nothing serves the bus.
	void lose_bus()
	{
		bus->stop_routerd();
		bus->stop_broker();
	}

	static bool sleeps(pid_t pid)
	{
		for (const ProcessEntry &entry : all_processes()) {
			if (entry.pid == pid) {
				return entry.state == 'S';
			}
		}
		return false;
	}

	bool logs()
	{
		syslog.clear();
		offer();
		server.on("/update.xml", {answer("no manifest")});
		daemon().check();
		return syslog.contains("can't find 'buildtime' section");
	}
};

class StartupWithoutBus : public RouterFixture
{
protected:
	SyslogCatcher syslog;
};

} // namespace

TEST_F(Startup, SecondInstanceEndsAtOnceWithStatus0)
{
	start_daemon();
	syslog.clear();
	Process second = start({"--debug"});
	const ExitStatus status = second.wait();
	EXPECT_TRUE(status.success());
	EXPECT_EQ(second.errors(), "");
	EXPECT_TRUE(syslog.lines().empty());
	EXPECT_EQ(daemon().state().status, 0);
}

TEST_F(Startup, MayStartAgainWhenTheFirstHasEnded)
{
	start_daemon();
	EXPECT_EQ(daemon().stop().code, 0);
	start_daemon();
	EXPECT_EQ(daemon().state_name(), "NONE");
}

TEST_F(Startup, PidofIsAskedForArgv0AsItStands)
{
	files.install_recording_tool("/bin/pidof", "exit 1");
	Process daemon({.words = {"./odd-name", "--debug"}, .program = daemon_path});
	EXPECT_TRUE(daemon.wait().success());
	EXPECT_EQ(files.tool_calls("/bin/pidof").at(0).at(1), "./odd-name");
}

TEST_F(Startup, MissingBusEndsItWithStatus255)
{
	lose_bus();
	Process daemon = start({"--debug"});
	EXPECT_EQ(daemon.wait().code, 255);
	EXPECT_EQ(daemon.errors(), "");
	ASSERT_EQ(syslog.lines().size(), 1u);
	EXPECT_EQ(syslog.lines()[0].text, "Failed to connect to ubus");
}

TEST_F(Startup, MissingBusIsSilentWithoutDebug)
{
	lose_bus();
	Process daemon = start();
	EXPECT_EQ(daemon.wait().code, 255);
	EXPECT_EQ(daemon.output() + daemon.errors(), "");
	EXPECT_TRUE(syslog.lines().empty());
}

TEST_F(Startup, DebugIsTakenAnywhereAmongTheArguments)
{
	may_crash = true; // it is stopped here
	for (const std::vector<std::string> &arguments : {std::vector<std::string>{"--debug"},
							  {"x", "--debug"},
							  {"--debug", "--debug", "-v"}}) {
		start_daemon(arguments);
		EXPECT_TRUE(logs());
		EXPECT_NE(text_of(daemon().state().fields, "message"), "");
		daemon().stop();
	}
}

TEST_F(Startup, AnythingButDebugIsIgnored)
{
	may_crash = true; // it is stopped here
	for (const std::vector<std::string> &arguments : {std::vector<std::string>{},
							  {"--Debug"},
							  {"--debug=1"},
							  {"-d"},
							  {"--debu"},
							  {"--debugg"},
							  {""},
							  {" --debug"},
							  {"-debug"},
							  {"--help"}}) {
		start_daemon(arguments);
		EXPECT_FALSE(logs());
		EXPECT_TRUE(syslog.lines().empty());
		EXPECT_EQ(text_of(daemon().state().fields, "message"), "");
		daemon().stop();
	}
}

TEST_F(Startup, TakenObjectNameIsReportedAndTheLoopRunsAllTheSame)
{
	start_daemon();
	// Another name in argv[0] gets past the check for a second instance.
	files.install_tool("/bin/pidof", "echo $PPID");
	Process second({.words = {"other"}, .program = daemon_path});
	ASSERT_TRUE(second.wait_for_errors("\n"));
	EXPECT_EQ(second.errors(), "Failed to add object: Invalid argument\n");
	EXPECT_TRUE(second.running());
	// A signal before the loop runs is lost; the loop is where it sleeps.
	ASSERT_TRUE(eventually([&] { return sleeps(second.pid()); }));
	second.signal(SIGTERM);
	EXPECT_TRUE(second.wait().success());
}

TEST_F(Startup, SignalsEndItInOrder)
{
	may_crash = true; // it is stopped here
	for (const int number : {SIGTERM, SIGINT}) {
		start_daemon();
		daemon().process().signal(number);
		EXPECT_TRUE(daemon().process().wait().success()) << number;
		EXPECT_TRUE(wait_for_object_gone("fwupdate"));
	}
}

TEST_F(Startup, ClosedPipesDoNotKillIt)
{
	start_daemon();
	daemon().process().signal(SIGPIPE);
	EXPECT_EQ(daemon().state().status, 0);
}

TEST_F(Startup, GoesOnWithoutABusThatWentAway)
{
	may_crash = true; // it is stopped here
	start_daemon();
	lose_bus();
	EXPECT_TRUE(daemon().running());
	EXPECT_TRUE(daemon().stop().success());
}

TEST_F(Startup, ShellCommandsInheritNoDescriptor)
{
	files.install_tool(
		"/usr/sbin/qor_factory",
		"for fd in /realproc/$$/fd/*; do readlink $fd; done >/var/inherited; echo 1");
	offer();
	start_daemon();
	daemon().check();
	const std::string inherited = read_file("/var/inherited");
	EXPECT_NE(inherited.find("/var/inherited"), std::string::npos) << inherited;
	EXPECT_EQ(inherited.find("socket:"), std::string::npos) << inherited;
	EXPECT_EQ(inherited.find("eventpoll"), std::string::npos) << inherited;
}

TEST_F(Startup, NothingIsOpenButLoopAndBus)
{
	start_daemon();
	int sockets = 0;
	for (const auto &[number, what] : open_descriptors(daemon().pid())) {
		const bool is_socket = what.starts_with("socket:");
		sockets += is_socket ? 1 : 0;
		EXPECT_TRUE(number <= 2 || is_socket || what.starts_with("anon_inode:") ||
			    what.starts_with("pipe:"))
			<< number << " is " << what;
	}
	EXPECT_EQ(sockets, 1);
}

// A sanitizer's runtime is C++.
#ifndef __SANITIZE_ADDRESS__
TEST_F(StartupWithoutBus, ProgramNeedsNoCxxRuntime)
{
	const std::string program = read_file(daemon_path);
	ASSERT_GT(program.size(), sizeof(ElfW(Ehdr)));
	ASSERT_EQ(program[EI_CLASS], sizeof(void *) == 8 ? ELFCLASS64 : ELFCLASS32);
	const auto *header = reinterpret_cast<const ElfW(Ehdr) *>(program.data());
	const auto *sections =
		reinterpret_cast<const ElfW(Shdr) *>(program.data() + header->e_shoff);
	int needed = 0;
	for (unsigned i = 0; i < header->e_shnum; i++) {
		if (sections[i].sh_type != SHT_DYNAMIC) {
			continue;
		}
		const char *strings = program.data() + sections[sections[i].sh_link].sh_offset;
		const auto *entry =
			reinterpret_cast<const ElfW(Dyn) *>(program.data() + sections[i].sh_offset);
		for (; entry->d_tag != DT_NULL; entry++) {
			if (entry->d_tag == DT_NEEDED) {
				const std::string library = strings + entry->d_un.d_val;
				needed++;
				EXPECT_EQ(library.find("stdc++"), std::string::npos);
				EXPECT_EQ(library.find("libgcc"), std::string::npos);
			}
		}
	}
	EXPECT_GE(needed, 3) << "the dynamic section was not read";
}
#endif
