// SPDX-License-Identifier: ISC
#include <csignal>

#include "bus_headers.h"
#include "tool_test.h"

using router_test::Command;
using router_test::Process;

namespace
{

struct Reply {
	int status = -1;
	std::string json;
};

// A client of its own, so that the status is the one on the wire.
class Client
{
public:
	explicit Client(const std::string &socket) : bus_(ubus_connect(socket.c_str()))
	{
		if (!bus_) {
			throw std::runtime_error("no broker at " + socket);
		}
	}
	~Client()
	{
		ubus_free(bus_);
	}
	Client(const Client &) = delete;
	Client &operator=(const Client &) = delete;

	Reply call(const char *path, const char *method) const
	{
		std::uint32_t id = 0;
		Reply reply;
		reply.status = ubus_lookup_id(bus_, path, &id);
		if (reply.status == UBUS_STATUS_OK) {
			reply.status =
				ubus_invoke(bus_, id, method, nullptr, on_data, &reply, wait_ms());
		}
		return reply;
	}

private:
	static int wait_ms()
	{
		return static_cast<int>(router_test::wait_limit().count());
	}

	static void on_data(ubus_request *request, int, blob_attr *message)
	{
		char *text = blobmsg_format_json(message, true);
		static_cast<Reply *>(request->priv)->json += text;
		free(text);
	}

	ubus_context *bus_;
};

class RouterD : public ToolTest
{
protected:
	RouterD()
	{
		broker = start({tool("ubusd"), "-s", path("socket")});
		// The socket's file is there before the broker listens: nothing tells when it does.
		const bool up = router_test::eventually([this] {
			ubus_context *bus = ubus_connect(path("socket").c_str());
			if (bus) {
				ubus_free(bus);
			}
			return bus != nullptr;
		});
		if (!up) {
			throw std::runtime_error("ubusd does not come up");
		}
	}

	static std::unique_ptr<Process> start(const std::vector<std::string> &words)
	{
		return std::make_unique<Process>(Command{.words = words});
	}

	void start_routerd()
	{
		routerd = start({tool("routerd"), "-s", path("socket"), "-d", path()});
		const Client client(path("socket"));
		ASSERT_TRUE(router_test::eventually([&client] {
			return client.call("network.interface.wan", "none").status ==
			       UBUS_STATUS_METHOD_NOT_FOUND;
		}));
	}

	Reply call(const char *object, const char *method) const
	{
		return Client(path("socket")).call(object, method);
	}

	void expect_complaint(const std::string &text)
	{
		EXPECT_TRUE(routerd->wait_for_errors(text))
			<< text << " is not in: " << routerd->errors();
	}

	std::unique_ptr<Process> broker;
	std::unique_ptr<Process> routerd;
};

TEST_F(RouterD, AnswersWithTheFiles)
{
	write("board.json", R"({ "board_name": "qor,model-x", "release": { "revision": "r1" },
				 "number": 5, "list": [ "a", { "b": true } ] })");
	write("wan.json", R"({"device": "wan"})");
	start_routerd();
	const Reply board = call("system", "board");
	EXPECT_EQ(board.status, UBUS_STATUS_OK);
	EXPECT_EQ(board.json, R"({"board_name":"qor,model-x","release":{"revision":"r1"},)"
			      R"("number":5,"list":["a",{"b":true}]})");
	const Reply wan = call("network.interface.wan", "status");
	EXPECT_EQ(wan.status, UBUS_STATUS_OK);
	EXPECT_EQ(wan.json, R"({"device":"wan"})");
}

TEST_F(RouterD, ReadsTheFileAtEveryCall)
{
	write("board.json", R"({"release":{"builddate":"1"}})");
	start_routerd();
	EXPECT_EQ(call("system", "board").json, R"({"release":{"builddate":"1"}})");
	write("board.json", R"({"release":{"builddate":"2"}})");
	EXPECT_EQ(call("system", "board").json, R"({"release":{"builddate":"2"}})");
	write("board.json", "{}");
	EXPECT_EQ(call("system", "board").json, "{}");
}

TEST_F(RouterD, SurvivesMissingFiles)
{
	start_routerd();
	EXPECT_EQ(call("system", "board").status, UBUS_STATUS_NOT_FOUND);
	expect_complaint("/board.json: No such file");
	EXPECT_EQ(call("network.interface.wan", "status").status, UBUS_STATUS_NOT_FOUND);
	expect_complaint("/wan.json: No such file");
	write("board.json", R"({"board_name":"b"})");
	EXPECT_EQ(call("system", "board").json, R"({"board_name":"b"})");
}

TEST_F(RouterD, SurvivesBrokenFiles)
{
	start_routerd();
	for (const std::string &content :
	     {std::string(), std::string("{"), std::string("nonsense"), std::string("[ 1 ]"),
	      std::string("\"text\""), std::string("5"), std::string("null"),
	      std::string("{\"a\":tru}"), std::string(100000, '['),
	      "{\"a\":\"" + std::string(1 << 20, 'x') + "\"}"}) {
		write("board.json", content);
		const Reply reply = call("system", "board");
		EXPECT_EQ(reply.status, UBUS_STATUS_UNKNOWN_ERROR) << content.substr(0, 20);
		EXPECT_EQ(reply.json, "") << content.substr(0, 20);
	}
	expect_complaint("/board.json: not a JSON object");
	expect_complaint("/board.json: longer than ");
	std::filesystem::create_directory(path("wan.json"));
	EXPECT_EQ(call("network.interface.wan", "status").status, UBUS_STATUS_UNKNOWN_ERROR);
	expect_complaint("/wan.json: Is a directory");
	write("board.json", R"({"board_name":"b"})");
	EXPECT_EQ(call("system", "board").json, R"({"board_name":"b"})");
}

TEST_F(RouterD, AnswersWithLargeFiles)
{
	const std::string text = R"({"a":")" + std::string(400000, 'x') + "\"}";
	write("board.json", text);
	start_routerd();
	EXPECT_TRUE(call("system", "board").json == text);
}

TEST_F(RouterD, HasNoOtherMethods)
{
	start_routerd();
	EXPECT_EQ(call("system", "reboot").status, UBUS_STATUS_METHOD_NOT_FOUND);
	EXPECT_EQ(call("network.interface.lan", "status").status, UBUS_STATUS_NOT_FOUND);
}

TEST_F(RouterD, EndsOnSigterm)
{
	start_routerd();
	routerd->signal(SIGTERM);
	EXPECT_EQ(routerd->wait().code, 0);
	EXPECT_EQ(routerd->errors(), "");
}

TEST_F(RouterD, EndsWithTheBroker)
{
	start_routerd();
	broker->kill();
	EXPECT_EQ(routerd->wait().code, 1);
	EXPECT_EQ(routerd->errors(), "routerd: the broker is gone\n");
}

TEST_F(RouterD, NeedsABroker)
{
	const auto result = router_test::run({tool("routerd"), "-s", path("absent")});
	EXPECT_EQ(result.status.code, 1);
	EXPECT_EQ(result.errors, "routerd: no broker\n");
}

TEST_F(RouterD, RefusesObjectsThatAreServedAlready)
{
	start_routerd();
	const auto second = router_test::run({tool("routerd"), "-s", path("socket")});
	EXPECT_EQ(second.status.code, 1);
	EXPECT_EQ(second.errors, "routerd: object system: Invalid argument\n");
}

TEST_F(RouterD, ExplainsItsUse)
{
	for (const char *option : {"-z", "-s", "more"}) {
		const auto result = router_test::run({tool("routerd"), option});
		EXPECT_EQ(result.status.code, 2) << option;
		EXPECT_NE(result.errors.find("Usage: "), std::string::npos) << option;
	}
}

} // namespace
