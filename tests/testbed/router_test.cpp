// SPDX-License-Identifier: ISC
// The launcher of the simulated router, as its callers see it, and the `ubus` command there.
#include <algorithm>
#include <csignal>

#include "tool_test.h"

using router_test::run;
using router_test::RunResult;

namespace
{

constexpr int cannot_open = 1;
constexpr int misused = 2;

class Router : public ToolTest
{
protected:
	// `options` come before the command.
	static RunResult router(const std::string &script,
				const std::vector<std::string> &options = {"--bare"})
	{
		std::vector<std::string> words = launcher();
		words.insert(words.end(), options.begin(), options.end());
		words.insert(words.end(), {"--", "sh", "-c", script});
		return run(words, "");
	}

	static RunResult refused(const std::vector<std::string> &options)
	{
		std::vector<std::string> words = launcher();
		words.insert(words.end(), options.begin(), options.end());
		return run(words, "");
	}

private:
	// In a session of its own, or a signal that gets out would end this program. The leak
	// sanitizer does not find its process in the router's /proc.
	static std::vector<std::string> launcher()
	{
		return {"env",	   "ASAN_OPTIONS=detect_leaks=0",
			"setsid",  TESTBED_DIR "/router",
			"--build", BUILD_DIR};
	}
};

TEST_F(Router, HandsBackTheCommandsOutputAndStatus)
{
	const RunResult result = router("echo out; echo err >&2; exit 7");
	EXPECT_EQ(result.status.code, 7);
	EXPECT_EQ(result.output, "out\n");
	EXPECT_EQ(result.errors, "err\n");
}

TEST_F(Router, TellsWhichSignalEndedTheCommand)
{
	EXPECT_EQ(router("kill -9 $$").status.code, 128 + SIGKILL);
}

// `kill 0` ends a whole process group, other namespaces or not.
TEST_F(Router, SignalsToTheGroupStayInside)
{
	EXPECT_EQ(router("kill -9 0; echo still here").status.code, 128 + SIGKILL);
}

TEST_F(Router, HasTheFlashLayoutAndTheTmpThatWereAskedFor)
{
	const std::string mtd = write("mtd", "dev: size erasesize name\nmtd0: 00010000 ...\n");
	const RunResult result = router("cat /proc/mtd; df -P /tmp | awk 'END { print $2 }'",
					{"--bare", "--mtd", mtd, "--tmp-size", "8388608"});
	EXPECT_EQ(result.output, read("mtd") + "8192\n");
}

TEST_F(Router, WritesOnlyWhereItMayOnTheHost)
{
	const std::string script = "echo changed >" + path("file") + "; cat " + path("file");
	write("file", "kept\n");
	EXPECT_NE(router(script).status.code, 0);
	EXPECT_EQ(read("file"), "kept\n");
	const RunResult result = router(script, {"--bare", "--bind", path()});
	EXPECT_EQ(result.output, "changed\n");
	EXPECT_EQ(read("file"), "changed\n");
}

TEST_F(Router, ShowsAnotherServersFolder)
{
	write("update.xml", "<update/>");
	const RunResult result =
		router("cat /srv/update/update.xml", {"--bare", "--server-root", path()});
	EXPECT_EQ(result.output, "<update/>");
}

TEST_F(Router, LeavesOutTheDaemonOrTheWholeBus)
{
	EXPECT_EQ(router("ubus list", {"--no-daemon", "--no-server"}).output,
		  "network.interface.wan\nsystem\n");
	const RunResult result = router("ubus list", {"--no-bus", "--no-server"});
	EXPECT_NE(result.status.code, 0);
	EXPECT_EQ(result.output, "");
}

TEST_F(Router, CrashOfTheDaemonFailsTheRun)
{
	const std::vector<std::string> options = {"--no-server"};
	EXPECT_EQ(router("kill -SEGV $(pidof fwupdate)", options).status.code, 1);
	EXPECT_EQ(router("kill -KILL $(pidof fwupdate)", options).status.code, 0);
}

TEST_F(Router, AnswersAWrongOptionWithItsUsage)
{
	const std::vector<std::string> wrong[] = {
		{"--bogus"},
		{"word"},
		{"--tmp-size"},
		{"--tmp-size", "many"},
		{"--bind", ""},
		{"--tmp-size", "99999999999999999999"},
		{"--tmp-size", "1024"},
		{"--server-rate", "-1"},
	};
	for (const std::vector<std::string> &options : wrong) {
		const RunResult result = refused(options);
		EXPECT_EQ(result.status.code, misused) << options[0];
		EXPECT_NE(result.errors.find("Usage: testbed/router"), std::string::npos)
			<< options[0];
		EXPECT_EQ(result.output, "") << options[0];
	}
}

TEST_F(Router, SaysInASentenceWhatIsMissing)
{
	const std::string none = path("none");
	const std::vector<std::string> missing[] = {
		{"--mtd", none},   {"--server-root", none}, {"--bind", none},
		{"--build", none}, {"--build", path()},
	};
	for (const std::vector<std::string> &options : missing) {
		const RunResult result = refused(options);
		EXPECT_EQ(result.status.code, cannot_open) << options[0];
		EXPECT_NE(result.errors.find(options[1]), std::string::npos) << options[0];
		EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1)
			<< result.errors;
	}
}

class Ubus : public Router
{
protected:
	static RunResult ubus(const std::string &words)
	{
		return router("ubus " + words, {"--no-server", "--no-daemon"});
	}
};

TEST_F(Ubus, ListsPaths)
{
	EXPECT_EQ(ubus("list").output, "network.interface.wan\nsystem\n");
	EXPECT_EQ(ubus("-S -v list 'net*'").output, "network.interface.wan\n");
}

TEST_F(Ubus, ListsMethodsWithTheirArguments)
{
	EXPECT_EQ(router("ubus -v list fwupdate | sed 's/@.*/@/'", {"--no-server"}).output,
		  "'fwupdate' @\n"
		  "\t\"check\":{}\n"
		  "\t\"update\":{\"force\":\"String\",\"partition\":\"String\","
		  "\"timeout\":\"Integer\",\"attempts\":\"Integer\",\"delay\":\"Integer\"}\n"
		  "\t\"test\":{\"file\":\"String\",\"partition\":\"String\"}\n"
		  "\t\"state\":{}\n");
}

TEST_F(Ubus, PrintsTheAnswer)
{
	const std::string board = "echo '{\"a\":{\"b\":[true,1.5,-1]},\"c\":9007199254740993}' "
				  ">/etc/router/board.json; ubus ";
	const std::vector<std::string> options = {"--no-server", "--no-daemon"};
	EXPECT_EQ(
		router(board + "call system board", options).output,
		"{\n\t\"a\": {\n\t\t\"b\": [\n\t\t\ttrue,\n\t\t\t1.500000,\n\t\t\t-1\n\t\t]\n\t},\n"
		"\t\"c\": 9007199254740993\n}\n");
	EXPECT_EQ(router(board + "-S call system board '{\"x\":\"y\"}'", options).output,
		  "{\"a\":{\"b\":[true,1.500000,-1]},\"c\":9007199254740993}\n");
}

TEST_F(Ubus, FailsWithAReason)
{
	const char *usage = "Usage: ubus ";
	struct {
		const char *words;
		int code;
		const char *complaint;
	} const cases[] = {
		{"list none", 4, "Not found"},
		{"call none go", 4, "Not found"},
		{"call system none", 3, "Method not found"},
		{"call system board {bad", 12, "Parsing message data failed"},
		{"call system board '[1]'", 12, "Parsing message data failed"},
		{"send ubus.x", 6, "Permission denied"},
		{"-t 1 wait_for none", 7, "Request timed out"},
		{"-s /none list", 255, "Failed to connect to ubus"},
		{"call system", 254, usage},
		{"dance", 254, usage},
		{"", 1, usage},
		{"-t 1s list", 1, usage},
	};
	for (const auto &[words, code, complaint] : cases) {
		const RunResult result = ubus(words);
		EXPECT_EQ(result.status.code, code) << words;
		EXPECT_EQ(result.output, "") << words;
		EXPECT_NE(result.errors.find(complaint), std::string::npos)
			<< words << ": " << result.errors;
	}
	EXPECT_EQ(ubus("-S call none go").errors, "");
}

// The second listener is there when it hears of itself.
TEST_F(Ubus, PrintsEventsAsTheyComeAndWaitsForObjects)
{
	const RunResult result = router(
		"ubus listen ready 'foo*' >/var/heard & "
		"until grep -q ready /var/heard; do ubus send ready; done; "
		"ubus send bar; ubus send foo.bar '{\"a\":{\"b\":[1,\"x\"]}}'; "
		"until grep foo /var/heard; do sleep 0.01; done; kill $!; wait $!; echo $?; "
		"{ sleep 0.2; fwupdate & } & ubus -t 60 wait_for system fwupdate && echo there; "
		"grep -c bar /var/heard; kill $(pidof fwupdate)",
		{"--no-server", "--no-daemon"});
	EXPECT_EQ(result.output, "{ \"foo.bar\": {\"a\":{\"b\":[1,\"x\"]}} }\n0\nthere\n1\n")
		<< result.errors;
}

} // namespace
