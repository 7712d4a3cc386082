// SPDX-License-Identifier: ISC
// The broker as a process: its socket's file, its options, its end.
#include <csignal>

#include <sys/stat.h>

#include "bus_fixture.h"

using bus_test::RawClient;
using router_test::RunResult;

namespace
{

class UbusDProcess : public bus_test::Bus
{
};

TEST_F(UbusDProcess, EndsOnRequestAndTakesItsSocketAlong)
{
	for (const int number : {SIGTERM, SIGINT}) {
		RawClient client(socket());
		broker->signal(number);
		const auto status = broker->wait();
		EXPECT_TRUE(status.success()) << number;
		EXPECT_FALSE(exists("bus.sock"));
		EXPECT_TRUE(client.is_closed());
		start_broker();
	}
}

TEST_F(UbusDProcess, ASocketThatWasLeftIsReplaced)
{
	broker->kill();
	struct stat left {
	};
	ASSERT_EQ(stat(socket().c_str(), &left), 0);
	EXPECT_EQ(bus_test::connect_to(socket()), -1);

	broker = std::make_unique<router_test::Process>(
		router_test::Command{.words = {tool("ubusd"), "-s", socket()}});
	EXPECT_TRUE(router_test::wait_for_change(socket(), [this] {
		const int fd = bus_test::connect_to(socket());
		close(fd);
		return fd >= 0;
	}));
}

TEST_F(UbusDProcess, ASuccessorKeepsItsSocketWhenThePredecessorEnds)
{
	const auto old = std::move(broker);
	struct stat before {
	};
	struct stat after {
	};
	ASSERT_EQ(stat(socket().c_str(), &before), 0);
	broker = std::make_unique<router_test::Process>(
		router_test::Command{.words = {tool("ubusd"), "-s", socket()}});
	ASSERT_TRUE(router_test::wait_for_change(socket(), [&] {
		return stat(socket().c_str(), &after) == 0 && after.st_ino != before.st_ino;
	}));
	old->signal(SIGTERM);
	EXPECT_TRUE(old->wait().success());
	EXPECT_EQ(RawClient(socket()).ask(bus_wire::message(bus_wire::PING, 1, 0)), 0);
}

TEST_F(UbusDProcess, MakesTheFolderAndLetsEverybodyConnect)
{
	const std::string deep = path("run/ubus/ubus.sock");
	router_test::Process other(router_test::Command{.words = {tool("ubusd"), "-s", deep}});
	struct stat file {
	};

	ASSERT_TRUE(router_test::eventually([&] { return stat(deep.c_str(), &file) == 0; }));
	EXPECT_TRUE(S_ISSOCK(file.st_mode));
	EXPECT_EQ(file.st_mode & 0777, 0666u);
	EXPECT_NE(RawClient(deep).id(), 0u);
}

TEST_F(UbusDProcess, SaysWhyItCannotStart)
{
	write("file", "precious");
	struct {
		const char *name;
		std::vector<std::string> words;
		const char *complaint;
	} const cases[] = {
		{"unknown option", {"-x"}, "Usage"},
		{"option without value", {"-s"}, "Usage"},
		{"file in the way", {"-s", path("file")}, "Address already in use"},
		{"folder in the way", {"-s", path("")}, "cannot listen"},
		{"folder is a file", {"-s", path("file/ubus.sock")}, "Not a directory"},
		{"path too long", {"-s", path(std::string(120, 'x'))}, "File name too long"},
		{"empty path", {"-s", ""}, "cannot listen"},
	};

	for (const auto &[name, words, complaint] : cases) {
		std::vector<std::string> command{tool("ubusd")};
		command.insert(command.end(), words.begin(), words.end());
		const RunResult result = router_test::run(command);
		EXPECT_EQ(result.status.code, 1) << name;
		EXPECT_NE(result.errors.find(complaint), std::string::npos)
			<< name << ": " << result.errors;
	}
	EXPECT_EQ(read("file"), "precious");
}

} // namespace
