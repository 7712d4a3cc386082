// SPDX-License-Identifier: ISC
// The bus library over the real broker: connections, objects, lookups, events.
#include <fcntl.h>

#include "bus_service.h"

using namespace bus_test;
using bus_wire::A_DATA;
using bus_wire::A_METHOD;
using bus_wire::A_OBJID;
using bus_wire::A_STATUS;

namespace
{

class LibUbus : public UloopBus
{
};

TEST_F(LibUbus, ConnectsToABrokerOnly)
{
	const struct {
		const char *name;
		std::string path;
	} nobody[] = {
		{"missing", path("none.sock")},
		{"a folder", path()},
		{"a file", write("file", "")},
		{"empty", ""},
		{"too long", path(std::string(200, 'x'))},
	};

	for (const auto &[name, path] : nobody) {
		ubus_context context{};
		EXPECT_EQ(ubus_connect(path.c_str()), nullptr) << name;
		EXPECT_EQ(ubus_connect_ctx(&context, path.c_str()), -1) << name;
	}
	ubus_context context{};
	ASSERT_EQ(ubus_connect_ctx(&context, socket().c_str()), 0);
	EXPECT_NE(context.local_id, 0u);
	EXPECT_NE(context.connection_lost, nullptr);
	ubus_shutdown(&context);
}

TEST_F(LibUbus, ChildrenDoNotInheritTheSocket)
{
	const Context context = connect();

	EXPECT_EQ(fcntl(context->sock.fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(LibUbus, EachStatusHasItsText)
{
	const char *const texts[] = {
		"Success",
		"Invalid command",
		"Invalid argument",
		"Method not found",
		"Not found",
		"No response",
		"Permission denied",
		"Request timed out",
		"Operation not supported",
		"Unknown error",
		"Connection failed",
		"Out of memory",
		"Parsing message data failed",
		"System error",
	};

	for (int code = 0; code < __UBUS_STATUS_LAST; code++) {
		EXPECT_STREQ(ubus_strerror(code), texts[code]);
	}
	for (const int code : {-1, __UBUS_STATUS_LAST + 0, 99, -99}) {
		EXPECT_EQ(std::string(ubus_strerror(code)).rfind("Unknown error", 0), 0u) << code;
	}
}

TEST_F(LibUbus, AnObjectIsThereUntilItIsRemoved)
{
	const Context context = connect();
	Service service("one");
	std::uint32_t id = 0;

	EXPECT_EQ(ubus_add_object(context.get(), &service.object), 0);
	EXPECT_NE(service.object.id, 0u);
	EXPECT_EQ(ubus_lookup_id(context.get(), "one", &id), 0);
	EXPECT_EQ(id, service.object.id);
	EXPECT_EQ(ubus_add_object(context.get(), &service.object), UBUS_STATUS_INVALID_ARGUMENT);

	EXPECT_EQ(ubus_remove_object(context.get(), &service.object), 0);
	EXPECT_EQ(service.object.id, 0u);
	EXPECT_EQ(ubus_lookup_id(context.get(), "one", &id), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(ubus_remove_object(context.get(), &service.object), UBUS_STATUS_NOT_FOUND);

	EXPECT_EQ(ubus_add_object(context.get(), &service.object), 0);
}

TEST_F(LibUbus, APathIsTakenOnce)
{
	const Context context = connect();
	Service first("one");
	Service second("one");

	EXPECT_EQ(ubus_add_object(context.get(), &first.object), 0);
	EXPECT_EQ(ubus_add_object(context.get(), &second.object), UBUS_STATUS_INVALID_ARGUMENT);
	EXPECT_EQ(second.object.id, 0u);
}

TEST_F(LibUbus, LookupShowsWhatMethodsTake)
{
	const Context context = connect();
	Service one("one");
	Service other("other");
	Service two("one.two");
	std::string found;
	const auto collect = [](ubus_context *, ubus_object_data *object, void *priv) {
		auto &text = *static_cast<std::string *>(priv);
		text += std::string(object->path) + " " + to_json(object->signature) + "\n";
	};
	const std::string signature =
		R"({"go":{"text":3,"count":5,"flag":7,"table":2,"list":1},"plain":{},)"
		R"("masked":{"count":5}})";

	for (Service *service : {&other, &one, &two}) {
		ASSERT_EQ(ubus_add_object(context.get(), &service->object), 0);
	}
	EXPECT_EQ(ubus_lookup(context.get(), "one*", collect, &found), 0);
	EXPECT_EQ(found, "one " + signature + "\none.two " + signature + "\n");
	found.clear();
	EXPECT_EQ(ubus_lookup(context.get(), nullptr, collect, &found), 0);
	EXPECT_EQ(std::count(found.begin(), found.end(), '\n'), 3);
	EXPECT_EQ(ubus_lookup(context.get(), "none*", collect, &found), UBUS_STATUS_NOT_FOUND);
}

TEST_F(LibUbus, EventsArriveFromTheLoop)
{
	const Context context = connect();
	const Context sender = connect();
	Listener listener("stop");
	const Arguments data(R"({"a":1})");

	ASSERT_EQ(ubus_register_event_handler(context.get(), &listener, "foo.*"), 0);
	ASSERT_EQ(ubus_register_event_handler(context.get(), &listener, "stop"), 0);
	EXPECT_EQ(ubus_send_event(sender.get(), "foo.bar", data.head), 0);
	EXPECT_EQ(ubus_send_event(sender.get(), "foo", data.head), 0);
	EXPECT_EQ(ubus_send_event(sender.get(), "foo.", Arguments().head), 0);
	EXPECT_EQ(ubus_send_event(sender.get(), "stop", Arguments().head), 0);
	EXPECT_EQ(ubus_send_event(sender.get(), "ubus.object.add", Arguments().head),
		  UBUS_STATUS_PERMISSION_DENIED);
	EXPECT_EQ(listener.heard, "");
	run_loop();
	EXPECT_EQ(listener.heard, R"(foo.bar {"a":1} foo. {} stop {} )");

	EXPECT_EQ(ubus_unregister_event_handler(context.get(), &listener), 0);
	Listener last("stop");
	ASSERT_EQ(ubus_register_event_handler(context.get(), &last, "stop"), 0);
	EXPECT_EQ(ubus_send_event(sender.get(), "stop", Arguments().head), 0);
	run_loop();
	EXPECT_EQ(listener.heard, R"(foo.bar {"a":1} foo. {} stop {} )");
}

TEST_F(LibUbus, AHandlerGetsTheArgumentsAndTheCaller)
{
	const Context context = connect();
	RawClient caller(socket());
	std::string seen;
	Service service("one", [&](ubus_request_data &request, const std::string &method,
				   blob_attr *arguments) {
		const Arguments reply(R"({"done":true})");
		seen = method + " " + to_json(arguments);
		EXPECT_EQ(request.peer, caller.id());
		EXPECT_EQ(request.object, service.object.id);
		EXPECT_STREQ(request.acl.object, "one");
		EXPECT_NE(request.acl.user, nullptr);
		EXPECT_NE(request.acl.group, nullptr);
		EXPECT_EQ(ubus_send_reply(context.get(), &request, reply.head), 0);
		EXPECT_EQ(ubus_send_reply(context.get(), &request, reply.head), 0);
		uloop_end();
		return 9;
	});
	ASSERT_EQ(ubus_add_object(context.get(), &service.object), 0);

	caller.send(bus_wire::invoke(3, service.object.id, "go",
				     bus_wire::string_field("text", "hello")));
	run_loop();
	EXPECT_EQ(seen, R"(go {"text":"hello"})");
	for (int i = 0; i < 2; i++) {
		const auto data = caller.receive();
		EXPECT_EQ(data.type, bus_wire::DATA);
		EXPECT_EQ(data.seq, 3);
		EXPECT_EQ(data.attributes.at(A_DATA), bus_wire::field(7, "done", "\1"));
	}
	const auto status = caller.receive();
	EXPECT_EQ(status.type, bus_wire::STATUS);
	EXPECT_EQ(status.seq, 3);
	EXPECT_EQ(status.number(A_STATUS), 9u);
	EXPECT_EQ(status.number(A_OBJID), service.object.id);
}

TEST_F(LibUbus, CallsThatFitNothingAreAnsweredAllTheSame)
{
	const Context context = connect();
	RawClient caller(socket());
	int calls = 0;
	Service service("one", [&calls](auto &&...) { return ++calls, 0; });
	Listener listener("stop");
	ASSERT_EQ(ubus_add_object(context.get(), &service.object), 0);
	ASSERT_EQ(ubus_register_event_handler(context.get(), &listener, "stop"), 0);
	const auto id = service.object.id;

	caller.send(bus_wire::invoke(1, id, "none"));
	caller.send(bus_wire::invoke(2, id, ""));
	caller.send(bus_wire::invoke(3, id, "go and more"));
	// Arguments are the handler's to judge.
	caller.send(bus_wire::invoke(4, id, "go", "no blobmsg at all"));
	caller.send(bus_wire::message(bus_wire::INVOKE, 5, id,
				      bus_wire::number(A_OBJID, id) +
					      bus_wire::text(A_METHOD, "go") +
					      bus_wire::attribute(bus_wire::A_NO_REPLY, "\1") +
					      bus_wire::attribute(A_DATA, "")));
	caller.send(bus_wire::send_event(6, "stop"));
	run_loop();
	std::string answers;
	for (;;) {
		const auto answer = caller.receive();
		if (answer.seq == 6) {
			break;
		}
		answers += std::to_string(answer.seq) + ":" +
			   std::to_string(answer.number(A_STATUS)) + " ";
	}
	// The broker's own answer to the event may come first: read on for the others.
	while (std::count(answers.begin(), answers.end(), ' ') < 4) {
		const auto answer = caller.receive();
		answers += std::to_string(answer.seq) + ":" +
			   std::to_string(answer.number(A_STATUS)) + " ";
	}
	EXPECT_EQ(answers, "1:3 2:3 3:3 4:0 ");
	EXPECT_EQ(calls, 2);
}

} // namespace
