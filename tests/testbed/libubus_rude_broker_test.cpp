// SPDX-License-Identifier: ISC
// The bus library connected to what is no broker.
#include <filesystem>
#include <thread>

#include "bus_service.h"
#include "libubox.h"

using namespace bus_test;
using bus_wire::big_endian;
using bus_wire::head;
using bus_wire::message;
using bus_wire::number;

namespace
{

// A library that is connected to the test itself, which says what no broker would.
class LibUbusRudeBroker : public ToolTest
{
protected:
	LibUbusRudeBroker()
	{
		sockaddr_un address{};

		uloop_init();
		address.sun_family = AF_UNIX;
		path("bus.sock").copy(address.sun_path, sizeof(address.sun_path) - 1);
		if (bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) !=
			    0 ||
		    listen(listener, 1) != 0) {
			throw std::runtime_error("no socket");
		}
	}
	~LibUbusRudeBroker() override
	{
		close(listener);
		uloop_done();
	}

	// Connects while a thread says the first words.
	Context connect(const std::string &greeting, bool hang_up = false)
	{
		std::thread accepting([&] {
			broker = std::make_unique<RawClient>(
				accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
			broker->send(greeting);
			if (hang_up) {
				broker->leave();
			}
		});
		Context context(ubus_connect(path("bus.sock").c_str()));
		accepting.join();
		if (context) {
			ubus_add_uloop(context.get());
			context->connection_lost = [](ubus_context *) {
				lost = true;
				uloop_end();
			};
		}
		return context;
	}

	static inline bool lost = false;
	const std::string hello = message(bus_wire::HELLO, 0, 77);
	std::unique_ptr<RawClient> broker;
	int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

TEST_F(LibUbusRudeBroker, TakesOnlyAGreetingAsAGreeting)
{
	EXPECT_EQ(connect("", true), nullptr);
	EXPECT_EQ(connect(hello.substr(0, 5), true), nullptr);
	EXPECT_EQ(connect(message(bus_wire::STATUS, 0, 77)), nullptr);
	EXPECT_EQ(connect(head(bus_wire::HELLO, 0, 77) + big_endian(0, 4)), nullptr);
	EXPECT_EQ(connect(head(bus_wire::HELLO, 0, 77) + big_endian(0xffffff, 4)), nullptr);
	const Context context = connect(hello);
	ASSERT_NE(context, nullptr);
}

TEST_F(LibUbusRudeBroker, WhatIsNoMessageEndsTheConnection)
{
	STAND_IN_ONLY("waits for ever");
	const std::string rubbish[] = {
		head(bus_wire::INVOKE, 1, 1) + big_endian(0, 4),
		head(bus_wire::INVOKE, 1, 1) + big_endian(3, 4),
		head(bus_wire::INVOKE, 1, 1) + big_endian((1u << 20) + 1, 4),
		std::string(100, '\xff'),
		std::string(100, '\0'),
	};

	for (const std::string &bytes : rubbish) {
		const Context context = connect(hello);
		ASSERT_NE(context, nullptr);
		lost = false;
		broker->send(bytes);
		const router_test::Deadline deadline;
		while (context->sock.registered && !deadline.passed()) {
			uloop_run_timeout(deadline.remaining());
		}
		EXPECT_TRUE(lost);
		EXPECT_FALSE(context->sock.registered);
	}
}

TEST_F(LibUbusRudeBroker, DamagedMessagesAreNotFollowed)
{
	const Context context = connect(hello);
	ASSERT_NE(context, nullptr);
	AsyncCall call(context.get(), 5000);
	int calls = 0;
	const std::string answer = head(bus_wire::DATA, call.seq, 5000);
	const std::string damaged[] = {
		message(bus_wire::INVOKE, 1, 1),
		message(bus_wire::INVOKE, 1, 1, big_endian(0x03000000, 4)),
		message(bus_wire::INVOKE, 1, 1, big_endian(0x03ffffff, 4)),
		message(bus_wire::INVOKE, 1, 1, bus_wire::attribute(bus_wire::A_OBJID, "ab")),
		message(bus_wire::INVOKE, 1, 1, number(bus_wire::A_OBJID, 5000)),
		message(bus_wire::NOTIFY, 1, 1, number(bus_wire::A_OBJID, 5000)),
		message(200, 1, 1, number(bus_wire::A_OBJID, 5000)),
		message(bus_wire::STATUS, 999, 1, number(bus_wire::A_STATUS, 0)),
		answer + big_endian(4, 4),
		answer + big_endian(8, 4) + big_endian(0x070000ff, 4),
		answer + big_endian(9, 4) + big_endian(0x07000005, 4) + "x",
	};
	call.data_cb = [](ubus_request *request, int, blob_attr *) {
		++*static_cast<int *>(request->priv);
	};
	call.priv = &calls;

	for (const std::string &bytes : damaged) {
		broker->send(bytes);
	}
	broker->send(message(bus_wire::STATUS, call.seq, 5000, number(bus_wire::A_STATUS, 3)));
	const router_test::Deadline deadline;
	while (call.result == -1 && !deadline.passed()) {
		uloop_run_timeout(1);
	}
	EXPECT_EQ(call.result, 3);
	EXPECT_EQ(calls, 0);
	EXPECT_TRUE(context->sock.registered);
}

TEST_F(LibUbusRudeBroker, DescriptorsThatAreSentAreNotKept)
{
	STAND_IN_ONLY("keeps them");
	const auto count = [] {
		return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
	};
	const Context context = connect(hello);
	ASSERT_NE(context, nullptr);
	const auto before = count();
	lost = false;
	for (int i = 0; i < 5; i++) {
		send_with_descriptor(broker->fd(), message(bus_wire::STATUS, 1, 1), STDERR_FILENO);
	}
	AsyncCall call(context.get(), 5000);
	broker->send(message(bus_wire::STATUS, call.seq, 5000, number(bus_wire::A_STATUS, 0)));
	const router_test::Deadline deadline;
	while (call.result == -1 && !deadline.passed()) {
		uloop_run_timeout(1);
	}
	EXPECT_EQ(call.result, 0);
	EXPECT_EQ(count(), before);
}

} // namespace
