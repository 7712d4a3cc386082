// SPDX-License-Identifier: ISC
// The `ubus` command: what it prints and how it exits, with the built broker and two objects.
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <poll.h>

#include "bus_headers.h"
#include "tool_test.h"

using router_test::Command;
using router_test::Process;

namespace
{

constexpr const char *usage = "Usage: ubus ";

struct CloseContext {
	void operator()(ubus_context *context) const
	{
		ubus_free(context);
	}
};
using Context = std::unique_ptr<ubus_context, CloseContext>;

// An object with the methods `go` (arguments of several types), `masked` (one of them) and `plain`.
struct Service {
	using Handler = std::function<int(ubus_request_data &, const std::string &, blob_attr *)>;

	ubus_object object{}; // first: the handler gets this address
	Handler on_call;

	explicit Service(const char *path, Handler handler = {}) : on_call(std::move(handler))
	{
		static const blobmsg_policy policy[] = {
			{"text", BLOBMSG_TYPE_STRING}, {"count", BLOBMSG_TYPE_INT32},
			{"flag", BLOBMSG_TYPE_BOOL},   {"table", BLOBMSG_TYPE_TABLE},
			{"list", BLOBMSG_TYPE_ARRAY},
		};
		static const ubus_method methods[] = {
			UBUS_METHOD("go", handle, policy),
			UBUS_METHOD_NOARG("plain", handle),
			{.name = "masked",
			 .handler = handle,
			 .mask = 1 << 1,
			 .tags = 0,
			 .policy = policy,
			 .n_policy = static_cast<int>(ARRAY_SIZE(policy))},
		};
		type_ = UBUS_OBJECT_TYPE(path, methods);
		object.name = path;
		object.type = &type_;
		object.methods = methods;
		object.n_methods = static_cast<int>(ARRAY_SIZE(methods));
	}
	Service(const Service &) = delete;
	Service &operator=(const Service &) = delete;

private:
	static int handle(ubus_context *, ubus_object *object, ubus_request_data *request,
			  const char *method, blob_attr *arguments)
	{
		auto &self = *reinterpret_cast<Service *>(object);

		return self.on_call ? self.on_call(*request, method, arguments) : 0;
	}

	ubus_object_type type_{};
};

class Ubus : public ToolTest
{
protected:
	Ubus()
	{
		broker = std::make_unique<Process>(
			Command{.words = {tool("ubusd"), "-s", socket()}});
		// The file is there a moment before anybody listens.
		const bool up = router_test::eventually([this] {
			context.reset(ubus_connect(socket().c_str()));
			return context != nullptr;
		});
		if (!up) {
			throw std::runtime_error("ubusd does not come up");
		}
		EXPECT_EQ(ubus_add_object(context.get(), &service.object), 0);
		EXPECT_EQ(ubus_add_object(context.get(), &other.object), 0);
	}

	std::string socket() const
	{
		return path("bus.sock");
	}

	std::unique_ptr<Process> start(std::vector<std::string> words) const
	{
		words.insert(words.begin(), {tool("ubus"), "-s", socket()});
		return std::make_unique<Process>(Command{.words = words});
	}

	// Serves this process's objects until `done`, or until `ended` can be read.
	void serve_until(const std::function<bool()> &done, int ended = -1)
	{
		const router_test::Deadline deadline;
		pollfd watched[] = {{context->sock.fd, POLLIN, 0}, {ended, POLLIN, 0}};
		while (!done() && !watched[1].revents &&
		       poll(watched, 2, deadline.remaining()) > 0) {
			if (watched[0].revents) {
				ubus_handle_event(context.get());
			}
		}
	}

	// Runs the command to its end.
	Process &ubus(std::vector<std::string> words)
	{
		process = start(std::move(words));
		serve_until([] { return false; }, process->pid_descriptor());
		process->wait();
		return *process;
	}

	int handle(ubus_request_data &request, const std::string &method, blob_attr *arguments)
	{
		calls++;
		if (method == "plain") {
			return plain_status;
		}
		if (method == "go") {
			ubus_send_reply(context.get(), &request, arguments);
			return 0;
		}
		ubus_request_data never{};
		ubus_defer_request(context.get(), &request, &never);
		return 0;
	}

	std::unique_ptr<Process> broker;
	Context context;
	Service service{"test.one", [this](auto &&...all) {
				return handle(all...);
			}};
	Service other{"test.other"};
	int plain_status = 0;
	int calls = 0;
	std::unique_ptr<Process> process;
};

TEST_F(Ubus, ListsPaths)
{
	struct {
		std::vector<std::string> words;
		const char *output;
		int code;
	} const cases[] = {
		{{"list"}, "test.one\ntest.other\n", 0},
		{{"-S", "list"}, "test.one\ntest.other\n", 0},
		{{"-S", "-v", "list"}, "test.one\ntest.other\n", 0},
		{{"list", "test.one"}, "test.one\n", 0},
		{{"list", "test.*"}, "test.one\ntest.other\n", 0},
		{{"list", "test"}, "", 4},
		{{"list", "none*"}, "", 4},
	};

	for (const auto &[words, output, code] : cases) {
		Process &result = ubus(words);
		EXPECT_EQ(result.output(), output) << words.back();
		EXPECT_EQ(result.wait().code, code) << words.back();
		EXPECT_EQ(result.errors(), code ? "Command failed: Not found\n" : "");
	}
}

TEST_F(Ubus, ListsMethodsWithTheirArguments)
{
	char line[64];
	snprintf(line, sizeof(line), "'test.one' @%08x\n", service.object.id);
	const std::string expected =
		std::string(line) +
		"\t\"go\":{\"text\":\"String\",\"count\":\"Integer\",\"flag\":\"Boolean\","
		"\"table\":\"Table\",\"list\":\"Array\"}\n"
		"\t\"plain\":{}\n"
		"\t\"masked\":{\"count\":\"Integer\"}\n";

	EXPECT_EQ(ubus({"-v", "list", "test.one"}).output(), expected);
}

TEST_F(Ubus, PrintsTheAnswer)
{
	const std::string arguments =
		R"({"text":"x y","count":3,"table":{"flag":true},"list":[1]})";

	EXPECT_EQ(ubus({"call", "test.one", "go", arguments}).output(),
		  "{\n\t\"text\": \"x y\",\n\t\"count\": 3,\n\t\"table\": {\n\t\t\"flag\": true\n"
		  "\t},\n\t\"list\": [\n\t\t1\n\t]\n}\n");
	EXPECT_EQ(ubus({"-S", "call", "test.one", "go", arguments}).output(), arguments + "\n");
	EXPECT_EQ(ubus({"-S", "call", "test.one", "go"}).output(), "{}\n");
	EXPECT_EQ(process->wait().code, 0);
	EXPECT_EQ(ubus({"call", "test.one", "plain"}).output(), "");
	EXPECT_EQ(process->wait().code, 0);
}

TEST_F(Ubus, ExitsWithTheStatusOfTheCall)
{
	for (int code = 1; code < __UBUS_STATUS_LAST; code++) {
		plain_status = code;
		Process &result = ubus({"call", "test.one", "plain", "{}"});
		EXPECT_EQ(result.wait().code, code);
		EXPECT_EQ(result.output(), "");
		EXPECT_EQ(result.errors(),
			  std::string("Command failed: ") + ubus_strerror(code) + "\n");
		Process &simple = ubus({"-S", "call", "test.one", "plain", "{}"});
		EXPECT_EQ(simple.wait().code, code);
		EXPECT_EQ(simple.errors(), "");
	}
}

TEST_F(Ubus, FailsWithAReason)
{
	struct {
		std::vector<std::string> words;
		int code;
		const char *complaint;
	} const cases[] = {
		{{"call", "none", "go"}, 4, "Not found"},
		{{"call", "test.one", "none"}, 3, "Method not found"},
		{{"-t", "1", "call", "test.one", "masked"}, 7, "Request timed out"},
		{{"call", "test.one", "go", "{bad"}, 12, "Parsing message data failed"},
		{{"call", "test.one", "go", ""}, 12, "Parsing message data failed"},
		{{"call", "test.one", "go", "[1]"}, 12, "Parsing message data failed"},
		{{"call", "test.one", "go", "\"x\""}, 12, "Parsing message data failed"},
		{{"send", "x", "{"}, 12, "Parsing message data failed"},
		{{"send", "ubus.x"}, 6, "Permission denied"},
		{{"-t", "1", "wait_for", "none"}, 7, "Request timed out"},
		{{"list", "a", "b"}, 254, usage},
		{{"list", "-v", "test.one"}, 254, usage}, // options come before the command
		{{"call"}, 254, usage},
		{{"call", "test.one"}, 254, usage},
		{{"call", "test.one", "go", "{}", "{}"}, 254, usage},
		{{"send"}, 254, usage},
		{{"send", "x", "{}", "{}"}, 254, usage},
		{{"wait_for"}, 254, usage},
		{{"dance"}, 254, usage},
		{{}, 1, usage},
		{{"-x", "list"}, 1, usage},
		{{"-t", "x", "list"}, 1, usage},
		{{"-t", "-1", "list"}, 1, usage},
		{{"-t", "1s", "list"}, 1, usage},
		{{"-t", "99999999", "list"}, 1, usage},
		{{"-t"}, 1, usage},
	};

	for (const auto &[words, code, complaint] : cases) {
		Process &result = ubus(words);
		std::string line;
		for (const std::string &word : words) {
			line += word + " ";
		}
		EXPECT_EQ(result.wait().code, code) << line;
		EXPECT_EQ(result.output(), "") << line;
		EXPECT_NE(result.errors().find(complaint), std::string::npos)
			<< line << ": " << result.errors();
	}
}

TEST_F(Ubus, SaysWhenThereIsNoBroker)
{
	const auto result = router_test::run({tool("ubus"), "-s", path("none"), "list"});
	const auto simple = router_test::run({tool("ubus"), "-s", path("none"), "-S", "list"});

	EXPECT_EQ(result.status.code, 255);
	EXPECT_EQ(result.errors, "Failed to connect to ubus\n");
	EXPECT_EQ(simple.status.code, 255);
	EXPECT_EQ(simple.errors, "");
}

// Nothing tells when the command has begun to listen: it is called until it hears.
TEST_F(Ubus, PrintsEventsAsTheyCome)
{
	const auto everything = start({"listen"});
	const auto some = start({"listen", "foo*", "ready"});
	const auto limited = start({"-t", "1", "listen"});
	const auto hears = [this](Process &listening) {
		return router_test::eventually([&] {
			start({"send", "ready"})->wait();
			return listening.wait_for_output("{ \"ready\": {} }\n",
							 std::chrono::milliseconds(20));
		});
	};
	ASSERT_TRUE(hears(*everything));
	ASSERT_TRUE(hears(*some));

	EXPECT_EQ(start({"send", "foo.bar", R"({"a":{"b":[1,"x"]}})"})->wait().code, 0);
	EXPECT_EQ(start({"send", "bar"})->wait().code, 0);
	EXPECT_EQ(start({"send", "foo"})->wait().code, 0);
	EXPECT_TRUE(everything->wait_for_output("{ \"foo.bar\": {\"a\":{\"b\":[1,\"x\"]}} }\n"
						"{ \"bar\": {} }\n{ \"foo\": {} }\n"));
	EXPECT_TRUE(some->wait_for_output("{ \"foo.bar\": {\"a\":{\"b\":[1,\"x\"]}} }\n"
					  "{ \"foo\": {} }\n"));
	EXPECT_EQ(some->output().find("\"bar\""), std::string::npos);
	EXPECT_EQ(limited->wait().code, 0);

	some->signal(SIGTERM);
	EXPECT_EQ(some->wait().code, 0);
	broker->kill();
	EXPECT_EQ(everything->wait().code, UBUS_STATUS_CONNECTION_FAILED);
	EXPECT_EQ(everything->errors(), "Command failed: Connection failed\n");
}

TEST_F(Ubus, WaitsForObjects)
{
	EXPECT_EQ(ubus({"wait_for", "test.one", "test.other"}).wait().code, 0);

	const auto waiting = start({"wait_for", "test.one", "late", "later"});
	Service late("late");
	Service later("later");
	ASSERT_EQ(ubus_add_object(context.get(), &late.object), 0);
	EXPECT_TRUE(waiting->running());
	ASSERT_EQ(ubus_add_object(context.get(), &later.object), 0);
	EXPECT_EQ(waiting->wait().code, 0);
	EXPECT_EQ(waiting->output() + waiting->errors(), "");
}

TEST_F(Ubus, ABrokerThatDiesEndsACall)
{
	const auto call = start({"call", "test.one", "masked"});
	serve_until([this] { return calls == 1; });

	broker->kill();
	EXPECT_EQ(call->wait().code, UBUS_STATUS_CONNECTION_FAILED);
}

} // namespace
