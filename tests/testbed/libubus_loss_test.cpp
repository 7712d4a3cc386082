// SPDX-License-Identifier: ISC
// The bus library when the broker goes away.
#include <thread>

#include "bus_service.h"

using namespace bus_test;
using bus_wire::message;
using bus_wire::number;

namespace
{

class LibUbusLoss : public UloopBus
{
protected:
	static inline int losses = 0;
	static inline bool watched_at_loss = true;

	static void on_lost(ubus_context *context)
	{
		losses++;
		watched_at_loss = context->sock.registered;
		uloop_end();
	}
	static void expect_all_calls_fail(ubus_context *context)
	{
		Service service("two");
		std::uint32_t id = 0;

		EXPECT_NE(ubus_invoke(context, 5000, "go", nullptr, nullptr, nullptr, 0), 0);
		EXPECT_NE(ubus_lookup_id(context, "one", &id), 0);
		EXPECT_NE(ubus_add_object(context, &service.object), 0);
		EXPECT_NE(ubus_send_event(context, "x", Arguments().head), 0);
	}

	void SetUp() override
	{
		losses = 0;
		watched_at_loss = true;
	}

	RawClient owner{socket()};
	std::uint32_t object = owner.add_object("raw");
};

TEST_F(LibUbusLoss, EndsOpenCallsAndTellsTheProgram)
{
	const Context context = connect();
	AsyncCall call(context.get(), object);
	context->connection_lost = on_lost;

	owner.receive();
	broker->kill();
	run_loop();
	EXPECT_EQ(call.result, UBUS_STATUS_TIMEOUT);
	EXPECT_FALSE(call.was_watched);
	EXPECT_EQ(losses, 1);
	EXPECT_FALSE(watched_at_loss);
	expect_all_calls_fail(context.get());
}

TEST_F(LibUbusLoss, TheLoopGoesOnUnlessToldOtherwise)
{
	const Context context = connect();
	AsyncCall call(context.get(), object);
	uloop_timeout later{};
	later.cb = [](uloop_timeout *) {
		uloop_end();
	};
	call.complete_cb = [](ubus_request *request, int) {
		uloop_timeout_set(static_cast<uloop_timeout *>(request->priv), 20);
	};
	call.priv = &later;

	broker->kill();
	run_loop();
	EXPECT_FALSE(later.pending);
	EXPECT_FALSE(context->sock.registered);
}

TEST_F(LibUbusLoss, EndsACallThatWaits)
{
	const Context context = connect();
	context->connection_lost = on_lost;
	std::thread killer([this] {
		owner.receive();
		broker->kill();
	});

	EXPECT_EQ(ubus_invoke(context.get(), object, "go", nullptr, nullptr, nullptr, 0),
		  UBUS_STATUS_CONNECTION_FAILED);
	killer.join();
	EXPECT_EQ(losses, 0);
	run_loop();
	EXPECT_EQ(losses, 1);
}

TEST_F(LibUbusLoss, EndsACallInsideAHandler)
{
	const Context context = connect();
	context->connection_lost = on_lost;
	int result = -1;
	Service service("one", [&](auto &&...) {
		return result = ubus_invoke(context.get(), object, "go", nullptr, nullptr, nullptr,
					    0);
	});
	ASSERT_EQ(ubus_add_object(context.get(), &service.object), 0);
	owner.send(bus_wire::invoke(1, service.object.id, "go"));
	std::thread killer([this] {
		owner.receive();
		broker->kill();
	});

	run_loop();
	killer.join();
	EXPECT_EQ(result, UBUS_STATUS_CONNECTION_FAILED);
	EXPECT_EQ(losses, 1);
}

TEST_F(LibUbusLoss, ADeferredAnswerToNobodyIsHarmless)
{
	const Context context = connect();
	context->connection_lost = on_lost;
	ubus_request_data deferred{};
	Service service("one", [&](ubus_request_data &request, const std::string &, blob_attr *) {
		ubus_defer_request(context.get(), &request, &deferred);
		broker->kill();
		return 0;
	});
	ASSERT_EQ(ubus_add_object(context.get(), &service.object), 0);
	owner.send(bus_wire::invoke(1, service.object.id, "go"));

	run_loop();
	EXPECT_NE(ubus_send_reply(context.get(), &deferred, Arguments().head), 0);
	ubus_complete_deferred_request(context.get(), &deferred, 0);
}

TEST_F(LibUbusLoss, WhatCameBeforeTheEndIsStillHandled)
{
	const Context context = connect();
	context->connection_lost = on_lost;
	AsyncCall call(context.get(), object);
	const auto request = owner.receive();

	owner.send(message(bus_wire::STATUS, request.seq, request.peer,
			   number(bus_wire::A_STATUS, 4) + number(bus_wire::A_OBJID, object)));
	EXPECT_EQ(owner.ask(message(bus_wire::PING, 1, 0)), 0);
	broker->kill();
	run_loop();
	EXPECT_EQ(call.result, 4);
}

} // namespace
