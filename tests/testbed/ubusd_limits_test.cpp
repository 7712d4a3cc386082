// SPDX-License-Identifier: ISC
// The broker's bounds: large messages, slow readers, descriptors.
#include <filesystem>
#include <thread>
#include <vector>

#include <sys/resource.h>

#include "bus_fixture.h"

using namespace bus_wire;
using bus_test::RawClient;
using bus_test::send_with_descriptor;

namespace
{

constexpr std::size_t max_attr_len = 1u << 20;

std::string body_of(std::size_t length)
{
	// One DATA attribute; the message's own head and that attribute's are 4 bytes each.
	return attribute(A_DATA, std::string(length - 8, 'x'));
}

using UbusDLimits = bus_test::BusyBus;

TEST_F(UbusDLimits, TheLargestMessagePassesBothWays)
{
	const std::string names = text(A_USER, "") + text(A_GROUP, "");
	const std::string head_part = number(A_OBJID, object) + text(A_METHOD, "go");
	// Room for what the broker adds: two names, which are short.
	const std::string large =
		head_part + body_of(max_attr_len - head_part.size() - names.size() - 64);

	std::thread sender([&] { caller.send(message(INVOKE, 1, object, large)); });
	const Received call = owner.receive();
	sender.join();
	EXPECT_EQ(call.attributes.at(A_DATA).size(), large.size() - head_part.size() - 4);

	const std::string id = number(A_OBJID, object);
	const std::string answer = id + body_of(max_attr_len - id.size());
	std::thread replier([&] { owner.send(message(DATA, 1, caller.id(), answer)); });
	EXPECT_EQ(caller.receive().attributes.at(A_DATA).size(), answer.size() - id.size() - 4);
	replier.join();
	call_through();
}

TEST_F(UbusDLimits, ACallThatWouldGrowTooLargeIsRefused)
{
	const std::string head_part = number(A_OBJID, object) + text(A_METHOD, "go");

	EXPECT_EQ(caller.ask(message(INVOKE, 1, object,
				     head_part + body_of(max_attr_len - head_part.size()))),
		  2);
	call_through();
}

TEST_F(UbusDLimits, WhoDoesNotReadIsDropped)
{
	RawClient lazy(socket());
	lazy.listen("flood");
	const std::string data = string_field("fill", std::string(256u << 10, 'x'));
	std::size_t sent = 0;

	for (int i = 0; i < 100; i++) {
		ASSERT_EQ(caller.ask(send_event(i, "flood", data)), 0);
		sent += data.size();
	}
	call_through();

	const router_test::Deadline deadline;
	std::vector<char> bytes(1u << 20);
	std::size_t got = 0;
	ssize_t more = 1;
	while (more > 0 && router_test::wait_readable(lazy.fd(), deadline)) {
		more = recv(lazy.fd(), bytes.data(), bytes.size(), 0);
		got += more > 0 ? static_cast<std::size_t>(more) : 0;
	}
	EXPECT_LE(more, 0) << "still connected";
	EXPECT_LT(got, sent);
}

TEST_F(UbusDLimits, WhoReadsLateGetsEverythingInOrder)
{
	RawClient late(socket());
	late.listen("flood");
	const std::string fill = string_field("fill", std::string(64u << 10, 'x'));

	for (int i = 0; i < 64; i++) {
		const std::string count =
			field(F_INT32, "n", big_endian(static_cast<unsigned>(i), 4));
		ASSERT_EQ(caller.ask(send_event(i, "flood", count + fill)), 0);
	}
	for (unsigned int i = 0; i < 64; i++) {
		const std::string data = late.receive().attributes.at(A_DATA);
		EXPECT_EQ(read_big_endian(data.substr(8, 4)), i);
	}
}

// Whole descriptors in a message are nothing the broker wants.
TEST_F(UbusDLimits, DescriptorsThatAreSentAreNotKept)
{
	const std::string folder = "/proc/" + std::to_string(broker->pid()) + "/fd";
	const auto count = [&folder] {
		return std::distance(std::filesystem::directory_iterator(folder), {});
	};
	const auto before = count();
	send_with_descriptor(caller.fd(), message(PING, 1, 0), STDERR_FILENO);
	EXPECT_EQ(caller.receive().type, DATA);
	EXPECT_EQ(caller.receive().type, STATUS);
	EXPECT_EQ(count(), before);
}

TEST_F(UbusDLimits, MoreClientsThanDescriptorsAreTurnedAway)
{
	const rlimit few{24, 24};
	ASSERT_EQ(prlimit(broker->pid(), RLIMIT_NOFILE, &few, nullptr), 0);
	std::vector<std::unique_ptr<RawClient>> crowd;
	int turned_away = 0;

	for (int i = 0; i < 40; i++) {
		crowd.push_back(std::make_unique<RawClient>(bus_test::connect_to(socket())));
		try {
			crowd.back()->receive();
		} catch (const std::runtime_error &) {
			turned_away++;
		}
	}
	EXPECT_GT(turned_away, 10);
	EXPECT_LT(turned_away, 40);
	call_through();
	crowd.clear();
	EXPECT_TRUE(router_test::eventually([this] {
		RawClient again(bus_test::connect_to(socket()));
		try {
			return again.receive().type == HELLO;
		} catch (const std::runtime_error &) {
			return false;
		}
	}));
}

} // namespace
