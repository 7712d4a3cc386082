// SPDX-License-Identifier: ISC
// The bus library's requests: waiting for them, leaving them to the loop, answering them
// later, and calls inside of calls.
#include <thread>

#include "bus_service.h"

using namespace bus_test;
using bus_wire::A_DATA;
using bus_wire::A_METHOD;
using bus_wire::A_OBJID;
using bus_wire::A_STATUS;

namespace
{

class LibUbusRequest : public UloopBus
{
protected:
	static std::string status(const RawClient &, const bus_wire::Received &call,
				  std::uint32_t code)
	{
		return bus_wire::message(bus_wire::STATUS, call.seq, call.peer,
					 bus_wire::number(A_STATUS, code) +
						 bus_wire::number(A_OBJID, call.number(A_OBJID)));
	}
	static std::string data(const bus_wire::Received &call, const std::string &fields)
	{
		return bus_wire::message(bus_wire::DATA, call.seq, call.peer,
					 bus_wire::number(A_OBJID, call.number(A_OBJID)) +
						 bus_wire::attribute(A_DATA, fields));
	}
	static void collect(ubus_request *request, int type, blob_attr *message)
	{
		EXPECT_EQ(type, UBUS_MSG_DATA);
		*static_cast<std::string *>(request->priv) += to_json(message);
	}

	const Context context = connect();
	RawClient owner{socket()};
	std::uint32_t object = owner.add_object("raw");
};

TEST_F(LibUbusRequest, ACallWaitsForDataAndStatus)
{
	const Arguments arguments(R"({"text":"x"})");
	std::string answer;
	std::thread answering([this] {
		const auto call = owner.receive();
		EXPECT_EQ(call.attributes.at(A_DATA), bus_wire::string_field("text", "x"));
		owner.send(data(call, bus_wire::string_field("a", "1")));
		owner.send(data(call, bus_wire::string_field("b", "2")));
		owner.send(status(owner, call, 9));
	});

	EXPECT_EQ(ubus_invoke(context.get(), object, "go", arguments.head, collect, &answer, 0), 9);
	answering.join();
	EXPECT_EQ(answer, R"({"a":"1"}{"b":"2"})");
}

TEST_F(LibUbusRequest, ACallWithoutAnswerTimesOut)
{
	std::string answer;

	EXPECT_EQ(ubus_invoke(context.get(), object, "go", nullptr, collect, &answer, 50),
		  UBUS_STATUS_TIMEOUT);
	// What comes too late is nobody's.
	const auto late = owner.receive();
	owner.send(data(late, bus_wire::string_field("late", "")) + status(owner, late, 0));
	EXPECT_EQ(owner.ask(bus_wire::message(bus_wire::PING, 1, 0)), 0);
	EXPECT_EQ(ubus_invoke(context.get(), object, "go", nullptr, collect, &answer, 50),
		  UBUS_STATUS_TIMEOUT);
	EXPECT_EQ(answer, "");
}

TEST_F(LibUbusRequest, ACallOfNothingFails)
{
	EXPECT_EQ(ubus_invoke(context.get(), 5000, "go", nullptr, nullptr, nullptr, 0),
		  UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(ubus_invoke(context.get(), 0, "", nullptr, nullptr, nullptr, 0),
		  UBUS_STATUS_NOT_FOUND);
}

TEST_F(LibUbusRequest, TheLoopCompletesAsynchronousCallsInAnyOrder)
{
	AsyncCall first(context.get(), object);
	AsyncCall second(context.get(), object);
	std::string answer;
	second.data_cb = collect;
	second.priv = &answer;

	const auto first_call = owner.receive();
	const auto second_call = owner.receive();
	owner.send(data(second_call, bus_wire::string_field("a", "1")) +
		   status(owner, second_call, 0));
	run_loop();
	EXPECT_EQ(second.result, 0);
	EXPECT_EQ(answer, R"({"a":"1"})");
	EXPECT_EQ(first.completions, 0);
	owner.send(status(owner, first_call, 2));
	run_loop();
	EXPECT_EQ(first.result, 2);
	EXPECT_EQ(first.completions + second.completions, 2);
}

TEST_F(LibUbusRequest, AnAbortedCallStaysSilent)
{
	AsyncCall aborted(context.get(), object);
	AsyncCall other(context.get(), object);

	const auto aborted_call = owner.receive();
	const auto other_call = owner.receive();
	ubus_abort_request(context.get(), &aborted);
	owner.send(status(owner, aborted_call, 0) + status(owner, other_call, 0));
	run_loop();
	EXPECT_EQ(other.completions, 1);
	EXPECT_EQ(aborted.completions, 0);
	ubus_abort_request(context.get(), &other);
}

TEST_F(LibUbusRequest, ADeferredCallIsAnsweredLaterAndOthersMeanwhile)
{
	RawClient caller(socket());
	ubus_request_data deferred{};
	Service service("one",
			[&](ubus_request_data &request, const std::string &method, blob_attr *) {
				if (method == "go") {
					ubus_defer_request(context.get(), &request, &deferred);
				} else {
					uloop_end();
				}
				return 0;
			});
	ASSERT_EQ(ubus_add_object(context.get(), &service.object), 0);

	caller.send(bus_wire::invoke(1, service.object.id, "go"));
	caller.send(bus_wire::invoke(2, service.object.id, "plain"));
	run_loop();
	EXPECT_EQ(caller.receive().seq, 2);

	const Arguments reply(R"({"late":true})");
	EXPECT_EQ(ubus_send_reply(context.get(), &deferred, reply.head), 0);
	ubus_complete_deferred_request(context.get(), &deferred, 7);
	const auto part = caller.receive();
	EXPECT_EQ(part.type, bus_wire::DATA);
	EXPECT_EQ(part.seq, 1);
	const auto end = caller.receive();
	EXPECT_EQ(end.seq, 1);
	EXPECT_EQ(end.number(A_STATUS), 7u);
}

TEST_F(LibUbusRequest, ADeferredCallMayOutliveItsCaller)
{
	auto caller = std::make_unique<RawClient>(socket());
	ubus_request_data deferred{};
	Service service("one", [&](ubus_request_data &request, const std::string &, blob_attr *) {
		ubus_defer_request(context.get(), &request, &deferred);
		uloop_end();
		return 0;
	});
	ASSERT_EQ(ubus_add_object(context.get(), &service.object), 0);

	caller->send(bus_wire::invoke(1, service.object.id, "go"));
	run_loop();
	caller.reset();
	EXPECT_EQ(ubus_send_reply(context.get(), &deferred, Arguments().head), 0);
	ubus_complete_deferred_request(context.get(), &deferred, 0);
	std::uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(context.get(), "one", &id), 0);
}

// A handler that calls somebody else is not entered again meanwhile.
TEST_F(LibUbusRequest, CallsThatComeDuringACallAreHandledAfterwards)
{
	RawClient caller(socket());
	std::string trace;
	Service service("one", [&](ubus_request_data &, const std::string &method, blob_attr *) {
		trace += method + "( ";
		if (method == "go") {
			const int result = ubus_invoke(context.get(), object, "go", nullptr,
						       nullptr, nullptr, 0);
			EXPECT_EQ(result, 5);
		} else {
			uloop_end();
		}
		trace += ") ";
		return 0;
	});
	ASSERT_EQ(ubus_add_object(context.get(), &service.object), 0);

	caller.send(bus_wire::invoke(1, service.object.id, "go"));
	std::thread answering([&] {
		const auto nested = owner.receive();
		// These reach the one who waits before its answer does.
		owner.send(bus_wire::invoke(50, service.object.id, "masked"));
		owner.send(bus_wire::invoke(51, service.object.id, "plain"));
		owner.send(status(owner, nested, 5));
	});
	run_loop();
	answering.join();
	// `masked` ends the loop; `plain` may be left for the next run.
	if (trace == "go( ) masked( ) ") {
		run_loop();
	}
	EXPECT_EQ(trace, "go( ) masked( ) plain( ) ");
	EXPECT_EQ(caller.receive().number(A_STATUS), 0u);
	EXPECT_EQ(owner.receive().seq, 50);
	EXPECT_EQ(owner.receive().seq, 51);
}

TEST_F(LibUbusRequest, ACallToOneselfTimesOutAndIsHandledAfterwards)
{
	int calls = 0;
	Service service("one", [&](auto &&...) {
		calls++;
		uloop_end();
		return 0;
	});
	ASSERT_EQ(ubus_add_object(context.get(), &service.object), 0);

	EXPECT_EQ(
		ubus_invoke(context.get(), service.object.id, "go", nullptr, nullptr, nullptr, 50),
		UBUS_STATUS_TIMEOUT);
	EXPECT_EQ(calls, 0);
	run_loop();
	EXPECT_EQ(calls, 1);
}

// While an answer is read part by part, the reader may ask for more.
TEST_F(LibUbusRequest, ADataCallbackMayCallItself)
{
	struct Nested {
		ubus_context *context;
		std::uint32_t object;
		std::string trace;
	} nested{context.get(), object, ""};
	std::thread answering([this] {
		const auto outer = owner.receive();
		owner.send(data(outer, bus_wire::string_field("part", "1")));
		for (int i = 0; i < 2; i++) {
			const auto inner = owner.receive();
			if (i == 0) {
				owner.send(data(outer, bus_wire::string_field("part", "2")) +
					   status(owner, outer, 3));
			}
			owner.send(status(owner, inner, 0));
		}
	});
	const auto on_part = [](ubus_request *request, int, blob_attr *message) {
		auto &self = *static_cast<Nested *>(request->priv);
		self.trace += to_json(message);
		self.trace += std::to_string(
			ubus_invoke(self.context, self.object, "go", nullptr, nullptr, nullptr, 0));
	};

	EXPECT_EQ(ubus_invoke(context.get(), object, "go", nullptr, on_part, &nested, 0), 3);
	answering.join();
	EXPECT_EQ(nested.trace, R"({"part":"1"}0{"part":"2"}0)");
}

TEST_F(LibUbusRequest, LargeMessagesPassAndTooLargeOnesAreRefused)
{
	const std::string large((1u << 20) - 200, 'x');
	const std::string too_large(1u << 20, 'x');
	std::string answer;
	Arguments most;
	Arguments more;
	blobmsg_add_string(&most, "t", large.c_str());
	blobmsg_add_string(&more, "t", too_large.c_str());
	std::thread answering([&] {
		const auto call = owner.receive();
		owner.send(data(call, call.attributes.at(A_DATA)) + status(owner, call, 0));
	});

	EXPECT_NE(ubus_invoke(context.get(), object, "go", more.head, nullptr, nullptr, 0), 0);
	EXPECT_EQ(ubus_invoke(context.get(), object, "go", most.head, collect, &answer, 0), 0);
	answering.join();
	EXPECT_EQ(answer, R"({"t":")" + large + R"("})");
	EXPECT_NE(ubus_send_event(context.get(), "x", more.head), 0);
	EXPECT_EQ(ubus_send_event(context.get(), "x", most.head), 0);
}

} // namespace
