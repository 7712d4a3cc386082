// SPDX-License-Identifier: ISC
// Calls through the broker, and their answers: who gets them, who may send them.
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "bus_fixture.h"

using namespace bus_wire;
using bus_test::RawClient;

namespace
{

constexpr int ok = 0, not_found = 4, permission_denied = 6;

class UbusDCalls : public bus_test::Bus
{
};

TEST_F(UbusDCalls, CallsReachTheOwnerAndAnswersTheCaller)
{
	RawClient owner(socket());
	RawClient caller(socket());
	const auto object = owner.add_object("one");
	const std::string arguments = string_field("a", "b");

	caller.send(invoke(0x1234, object, "go", arguments));
	const Received call = owner.receive();
	EXPECT_EQ(call.type, INVOKE);
	EXPECT_EQ(call.seq, 0x1234);
	EXPECT_EQ(call.peer, caller.id());
	EXPECT_EQ(call.number(A_OBJID), object);
	EXPECT_EQ(call.text(A_METHOD), "go");
	EXPECT_EQ(call.attributes.at(A_DATA), arguments);
	EXPECT_EQ(call.text(A_USER), getpwuid(getuid())->pw_name);
	EXPECT_EQ(call.text(A_GROUP), getgrgid(getgid())->gr_name);

	for (const char *part : {"first", "second"}) {
		owner.send(message(DATA, 0x1234, caller.id(),
				   number(A_OBJID, object) + attribute(A_DATA, part)));
		const Received data = caller.receive();
		EXPECT_EQ(data.type, DATA);
		EXPECT_EQ(data.seq, 0x1234);
		EXPECT_EQ(data.peer, object);
		EXPECT_EQ(data.attributes.at(A_DATA), part);
	}
	owner.send(message(STATUS, 0x1234, caller.id(),
			   number(A_STATUS, 9) + number(A_OBJID, object)));
	const Received status = caller.receive();
	EXPECT_EQ(status.type, STATUS);
	EXPECT_EQ(status.peer, object);
	EXPECT_EQ(status.number(A_STATUS), 9u);
}

TEST_F(UbusDCalls, ACallerCannotGiveItselfAName)
{
	RawClient owner(socket());
	RawClient caller(socket());
	const auto object = owner.add_object("one");

	caller.send(message(INVOKE, 1, object,
			    number(A_OBJID, object) + text(A_METHOD, "go") +
				    text(A_USER, "forged") + text(A_GROUP, "forged") +
				    attribute(A_DATA, "")));
	const Received call = owner.receive();
	EXPECT_EQ(call.text(A_USER), getpwuid(getuid())->pw_name);
	EXPECT_EQ(call.text(A_GROUP), getgrgid(getgid())->gr_name);
}

TEST_F(UbusDCalls, AnOwnerIsNotToldWhetherItsAnswerIsWanted)
{
	RawClient owner(socket());
	const auto object = owner.add_object("one");
	RawClient caller(socket());

	caller.send(message(INVOKE, 1, object,
			    number(A_OBJID, object) + text(A_METHOD, "go") +
				    attribute(A_NO_REPLY, std::string(1, 1)) +
				    attribute(A_DATA, "")));

	EXPECT_EQ(owner.receive().attributes.count(A_NO_REPLY), 0U);
}

TEST_F(UbusDCalls, OnlyTheOwnerAnswersForAnObject)
{
	RawClient owner(socket());
	RawClient stranger(socket());
	RawClient caller(socket());
	const auto object = owner.add_object("one");
	const auto mine = stranger.add_object("mine");
	const auto status = [&caller](std::uint32_t from, std::uint32_t code) {
		return message(STATUS, 1, caller.id(),
			       number(A_STATUS, code) + number(A_OBJID, from));
	};

	caller.send(invoke(1, object, "go"));
	owner.receive();
	stranger.send(status(object, 1));
	stranger.send(message(STATUS, 1, caller.id(), number(A_STATUS, 2)));
	stranger.send(status(5000, 3));
	stranger.send(status(mine, 4)); // its own object: passed on, in its own name
	EXPECT_EQ(caller.receive().peer, mine);
	owner.send(status(object, 5));
	EXPECT_EQ(caller.receive().number(A_STATUS), 5u);
}

TEST_F(UbusDCalls, AnswersToACallerThatIsGoneAreDropped)
{
	RawClient owner(socket());
	RawClient bystander(socket());
	const auto object = owner.add_object("one");
	std::uint32_t gone = 0;
	{
		RawClient caller(socket());
		gone = caller.id();
		caller.send(invoke(1, object, "go"));
		owner.receive();
	}
	EXPECT_EQ(bystander.ask(message(PING, 1, 0)), ok);
	owner.send(message(DATA, 1, gone, number(A_OBJID, object) + attribute(A_DATA, "")));
	owner.send(message(STATUS, 1, gone, number(A_STATUS, 0) + number(A_OBJID, object)));
	EXPECT_EQ(owner.ask(message(PING, 2, 0)), ok);
}

TEST_F(UbusDCalls, AnOwnerThatVanishesInACallHurtsNobody)
{
	RawClient caller(socket());
	auto owner = std::make_unique<RawClient>(socket());
	const auto object = owner->add_object("one");
	caller.listen("ubus.object.remove");

	caller.send(invoke(1, object, "go"));
	owner->receive();
	owner.reset();
	// Nobody is left to answer that call; the next ones are told.
	EXPECT_EQ(caller.receive().text(A_METHOD), "ubus.object.remove");
	EXPECT_EQ(caller.ask(invoke(2, object, "go")), not_found);
}

TEST_F(UbusDCalls, HearsTheLastWordsOfAClientThatLeaves)
{
	RawClient listener(socket());
	listener.listen("bye");
	{
		RawClient client(socket());
		client.send(send_event(1, "bye"));
	}
	EXPECT_EQ(listener.receive().text(A_METHOD), "bye");
}

TEST_F(UbusDCalls, RefusesOtherUsers)
{
	if (getuid() != 0) {
		GTEST_SKIP() << "only root can become somebody else";
	}
	RawClient owner(socket());
	const auto object = owner.add_object("one", field(F_TABLE, "go", ""));
	chmod(path().c_str(), 0755);
	const pid_t child = fork();
	if (child == 0) {
		if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
			_exit(100);
		}
		const std::string refused[] = {
			message(REMOVE_OBJECT, 1, 0, number(A_OBJID, object)),
			invoke(1, object, "go"),
			send_event(1, "x"),
			register_pattern(1, object, "x"),
		};
		int wrong = 0;
		RawClient client(socket());
		for (const std::string &request : refused) {
			wrong += client.ask(request) != permission_denied;
		}
		// Allowed, and of no use: it sees no object, and nobody sees this one.
		wrong += client.add_object("") == 0;
		wrong += client.add_object("other") != 0;
		for (const std::string &wanted : {std::string(), text(A_OBJPATH, "one")}) {
			client.send(message(LOOKUP, 1, 0, wanted));
			const Received answer = client.receive();
			wrong += answer.type != STATUS || answer.number(A_STATUS) != ok;
		}
		wrong += client.ask(message(PING, 1, 0)) != ok;
		_exit(wrong);
	}
	int status = -1;
	waitpid(child, &status, 0);
	ASSERT_TRUE(WIFEXITED(status));
	EXPECT_EQ(WEXITSTATUS(status), 0) << "requests that were not refused";
	// Nothing of it came through to the object.
	EXPECT_EQ(owner.ask(message(PING, 2, 0)), ok);
}

} // namespace
