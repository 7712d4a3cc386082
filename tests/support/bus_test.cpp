// SPDX-License-Identifier: ISC
// The bus client against the router's own broker and the objects of routerd.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/bus_headers.h"
#include "support/fixture.h"

using namespace router_test;

namespace
{

class Bus : public RouterFixture
{
protected:
	BusServices services;
};

// An object of this process whose only method answers with what it was asked, later.
class EchoObject
{
public:
	EchoObject() : context_(ubus_connect(nullptr))
	{
		method_.name = "echo";
		method_.handler = [](ubus_context *context, ubus_object *,
				     ubus_request_data *request, const char *, blob_attr *message) {
			blob_buf buffer = {};
			blob_buf_init(&buffer, 0);
			append_fields(&buffer, read_fields(message));
			ubus_send_reply(context, request, buffer.head);
			blob_buf_free(&buffer);
			return 0;
		};
		type_.name = "echo";
		type_.methods = &method_;
		type_.n_methods = 1;
		object_.name = "echo";
		object_.type = &type_;
		object_.methods = &method_;
		object_.n_methods = 1;
		uloop_init();
		uloop_fd_add(&context_->sock, ULOOP_READ | ULOOP_BLOCKING);
		EXPECT_EQ(ubus_add_object(context_, &object_), 0);
	}
	~EchoObject()
	{
		ubus_free(context_);
		uloop_done();
	}
	EchoObject(const EchoObject &) = delete;

private:
	ubus_context *context_;
	ubus_method method_ = {};
	ubus_object_type type_ = {};
	ubus_object object_ = {};
};

} // namespace

TEST_F(Bus, ReadsAReplyInOrderWithTypes)
{
	files.set_wan(R"({"up": true, "device": "wan", "n": 7, "list": ["a", {"b": -1}]})");
	Reply reply = call("network.interface.wan", "status");
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.messages, 1);
	EXPECT_EQ(
		reply.fields,
		(Fields{bool_field("up", true), string_field("device", "wan"), int32_field("n", 7),
			array_field("list", {string_field("", "a"),
					     table_field("", {int32_field("b", -1)})})}));
}

TEST_F(Bus, TellsWhatIsNotThere)
{
	EXPECT_EQ(call("nobody", "x").status, UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(call("system", "no-such-method").status, UBUS_STATUS_METHOD_NOT_FOUND);
	EXPECT_FALSE(find_object("nobody"));
	ASSERT_TRUE(find_object("system"));
	EXPECT_EQ(find_object("system")->path, "system");
	EXPECT_FALSE(wait_for_object("nobody", milliseconds(10)));
}

TEST_F(Bus, CallOfAFrozenObjectIsBounded)
{
	services.pause_routerd();
	EXPECT_EQ(call("system", "board", {}, milliseconds(20)).status, Reply::no_answer);
	PendingCall pending("system", "board");
	EXPECT_FALSE(pending.finished());
	PendingCall given_up("system", "board");
	given_up.abandon();
	EXPECT_EQ(given_up.wait().status, Reply::no_answer);
	services.resume_routerd();
	EXPECT_EQ(pending.wait().status, 0);
	EXPECT_TRUE(pending.finished());
}

TEST_F(Bus, ListenerGetsEventsInOrderAndDrainProvesThereAreNoMore)
{
	EventListener listener("word.*");
	EXPECT_EQ(send_event("word.one", {string_field("a", "b")}), 0);
	EXPECT_EQ(send_event("other", {}), 0);
	EXPECT_EQ(send_event("word.two", {int64_field("n", 1LL << 40)}), 0);
	std::optional<BusEvent> event = listener.next();
	ASSERT_TRUE(event);
	EXPECT_EQ(event->id, "word.one");
	EXPECT_EQ(event->fields, Fields{string_field("a", "b")});
	std::vector<BusEvent> rest = listener.drain();
	ASSERT_EQ(rest.size(), 1u);
	EXPECT_EQ(rest[0].id, "word.two");
	EXPECT_EQ(rest[0].fields, Fields{int64_field("n", 1LL << 40)});
	EXPECT_TRUE(listener.drain().empty());
	EXPECT_FALSE(listener.next(milliseconds(5)));
}

TEST_F(Bus, ServicesComeAndGo)
{
	EventListener listener("ubus.object.remove");
	services.stop_routerd();
	EXPECT_TRUE(wait_for_object_gone("system"));
	EXPECT_TRUE(listener.wait_for_path("ubus.object.remove", "system"));
	services.start_routerd();
	EXPECT_TRUE(find_object("system"));
	services.stop_routerd();
	services.stop_broker();
	EXPECT_FALSE(broker_is_up());
	EXPECT_THROW(call("system", "board"), std::runtime_error);
	services.start_broker();
	EXPECT_TRUE(broker_is_up());
}

TEST_F(Bus, CallsAnObjectOfItsOwnProcess)
{
	EchoObject object;
	Fields arguments = {string_field("text", "a"),
			    int32_field("n", -5),
			    int64_field("big", -(1LL << 40)),
			    bool_field("yes", true),
			    int16_field("small", -2),
			    double_field("half", 0.5),
			    table_field("table", {string_field("in", "side")})};
	PendingCall pending("echo", "echo", arguments);
	EXPECT_FALSE(pending.finished());
	Reply reply = pending.wait_in_uloop();
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.fields, arguments);
}

TEST_F(Bus, DescribesAnObjectWithItsMethodsInOrder)
{
	EchoObject object;
	std::optional<BusObject> found = find_object("echo");
	ASSERT_TRUE(found);
	ASSERT_EQ(found->methods.size(), 1u);
	EXPECT_EQ(found->methods[0].name, "echo");
	EXPECT_EQ(found->methods[0].arguments, Fields{});
}
