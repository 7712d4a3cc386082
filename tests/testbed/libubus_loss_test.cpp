// SPDX-License-Identifier: ISC
// The bus library when the broker goes away, and when it comes back. The original library
// passes these tests too.
#include <fcntl.h>
#include <filesystem>
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

// The program that does not care is deaf from then on, and its loop goes on.

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

// Found out inside a call that waits, the same loss ends the loop of such a program.
TEST_F(LibUbusLoss, EndsTheLoopWhenACallWasWaitingUnlessToldOtherwise)
{
	const Context context = connect();
	uloop_timeout at_once{};
	static ubus_context *in_callback;
	static std::uint32_t callee;
	in_callback = context.get();
	callee = object;
	at_once.cb = [](uloop_timeout *) {
		EXPECT_EQ(ubus_invoke(in_callback, callee, "go", nullptr, nullptr, nullptr, 0),
			  UBUS_STATUS_CONNECTION_FAILED);
	};
	uloop_timeout_set(&at_once, 0);
	std::thread killer([this] {
		owner.receive();
		broker->kill();
	});

	run_loop();
	killer.join();
	EXPECT_TRUE(context->sock.eof);
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
	EXPECT_EQ(losses, 1);
	EXPECT_TRUE(watched_at_loss);
	run_loop();
	EXPECT_GT(losses, 1);
	EXPECT_FALSE(watched_at_loss);
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
	EXPECT_GE(losses, 2); // inside the call, and once the handler is done
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

class LibUbusReturn : public LibUbusLoss
{
protected:
	static int open_descriptors()
	{
		return static_cast<int>(
			std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
	}

	void kill_broker(const Context &context)
	{
		context->connection_lost = on_lost;
		broker->kill();
		run_loop();
		owner.leave();
	}
	bool reconnect(const Context &context) const
	{
		return ubus_reconnect(context.get(), socket().c_str()) == UBUS_STATUS_OK;
	}
	// Calls the service over the new bus, by its path.
	bool answers(const std::string &path_on_the_bus, const Context &context)
	{
		std::uint32_t id = 0;
		if (ubus_lookup_id(context.get(), path_on_the_bus.c_str(), &id) != 0) {
			return false;
		}
		RawClient caller(socket());
		caller.send(bus_wire::invoke(1, id, "go"));
		const router_test::Deadline deadline;
		while (!router_test::wait_readable(caller.fd(),
						   router_test::Deadline(milliseconds(1))) &&
		       !deadline.passed()) {
			uloop_run_timeout(1);
		}
		return caller.receive().number(bus_wire::A_STATUS) == 0;
	}

	using milliseconds = std::chrono::milliseconds;
};

TEST_F(LibUbusReturn, ObjectsComeBackWithTheConnection)
{
	const Context context = connect();
	Service one("one");
	Service two("two");
	ASSERT_EQ(ubus_add_object(context.get(), &one.object), 0);
	ASSERT_EQ(ubus_add_object(context.get(), &two.object), 0);

	for (int times = 0; times < 3; times++) {
		kill_broker(context);
		start_broker();
		ASSERT_TRUE(reconnect(context));
		EXPECT_FALSE(context->sock.eof);
		EXPECT_FALSE(context->sock.registered) << "that is the program's to do";
		ubus_add_uloop(context.get());
		EXPECT_NE(one.object.id, 0u);
		EXPECT_NE(two.object.id, 0u);
		EXPECT_TRUE(answers("one", context));
		EXPECT_TRUE(answers("two", context));
	}
}

TEST_F(LibUbusReturn, FailsWhileThereIsNoBrokerAndLeaksNothing)
{
	const Context context = connect();
	kill_broker(context);

	std::filesystem::remove(socket());
	ASSERT_FALSE(reconnect(context));
	const int before = open_descriptors();
	for (int times = 0; times < 100; times++) {
		EXPECT_EQ(ubus_reconnect(context.get(), socket().c_str()),
			  UBUS_STATUS_CONNECTION_FAILED);
		EXPECT_LT(context->sock.fd, 0);
	}
	EXPECT_EQ(open_descriptors(), before);
	start_broker();
	const int with_broker = open_descriptors();
	for (int times = 0; times < 100; times++) {
		EXPECT_TRUE(reconnect(context));
	}
	EXPECT_EQ(open_descriptors(), with_broker + 1);
}

// What greets wrongly is hung up on, but its number stays in the record.
TEST_F(LibUbusReturn, LeavesTheNumberOfAClosedDescriptorAfterABadGreeting)
{
	const Context context = connect();
	kill_broker(context);
	std::filesystem::remove(socket());
	const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_un address{};
	address.sun_family = AF_UNIX;
	socket().copy(address.sun_path, sizeof(address.sun_path) - 1);
	ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
	ASSERT_EQ(listen(listener, 1), 0);
	std::thread rude(
		[&] { const RawClient caller(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)); });

	EXPECT_EQ(ubus_reconnect(context.get(), socket().c_str()), UBUS_STATUS_UNKNOWN_ERROR);
	rude.join();
	close(listener);
	EXPECT_EQ(fcntl(context->sock.fd, F_GETFD), -1);
	context->sock.fd = -1;
}

// Its path is somebody else's by then: the connection is there, and the object forgotten.
TEST_F(LibUbusReturn, ForgetsAnObjectThatTheNewBusRefuses)
{
	const Context context = connect();
	Service one("one");
	ASSERT_EQ(ubus_add_object(context.get(), &one.object), 0);
	kill_broker(context);
	start_broker();
	{
		RawClient other(socket());
		ASSERT_NE(other.add_object("one"), 0u);
		ASSERT_TRUE(reconnect(context));
		EXPECT_EQ(one.object.id, 0u);
	}
	ASSERT_TRUE(reconnect(context));
	EXPECT_EQ(one.object.id, 0u);
	EXPECT_EQ(ubus_add_object(context.get(), &one.object), 0);
}

} // namespace
