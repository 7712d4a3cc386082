// SPDX-License-Identifier: ISC
// The broker's events: who gets which.
#include "bus_fixture.h"

using namespace bus_wire;
using bus_test::RawClient;

namespace
{

class UbusDEvents : public bus_test::Bus
{
protected:
	// What a client hears up to the answer to a ping of its own.
	static std::string heard(RawClient &client)
	{
		std::string events;

		client.send(message(PING, 999, 0));
		for (;;) {
			const Received received = client.receive();
			if (received.type == STATUS && received.seq == 999) {
				return events;
			}
			if (received.type == DATA) {
				continue; // of the ping's answer
			}
			events += received.text(A_METHOD) + " ";
		}
	}
};

TEST_F(UbusDEvents, GoToThoseWhosePatternMatches)
{
	struct {
		const char *pattern;
		const char *heard;
	} const cases[] = {
		{"foo", "foo "},
		{"foo.*", "foo.bar foo. "},
		{"foo*", "foo foo.bar foo. "},
		{"*", "foo foo.bar foo. fo "},
		{"fooo", ""},
		{"FOO", ""},
		{"*bar", ""},
		{"foo?bar", ""},
		{"f*r", ""},
	};
	RawClient sender(socket());

	for (const auto &[pattern, expected] : cases) {
		RawClient listener(socket());
		listener.listen(pattern);
		for (const char *id : {"foo", "foo.bar", "foo.", "fo"}) {
			EXPECT_EQ(sender.ask(send_event(1, id)), 0);
		}
		EXPECT_EQ(heard(listener), expected) << pattern;
	}
}

TEST_F(UbusDEvents, AreNotToBeHadWithoutAPattern)
{
	RawClient listener(socket());
	const auto object = listener.add_object("");

	EXPECT_EQ(listener.ask(register_pattern(1, object, "")), 6);
}

TEST_F(UbusDEvents, CarryIdAndData)
{
	RawClient sender(socket());
	RawClient listener(socket());
	const auto object = listener.listen("foo");
	const std::string data = string_field("a", "b") + field(F_INT32, "n", big_endian(7, 4));

	sender.send(send_event(1, "foo", data));
	const Received event = listener.receive();
	EXPECT_EQ(event.type, INVOKE);
	EXPECT_EQ(event.peer, 0u);
	EXPECT_EQ(event.number(A_OBJID), object);
	EXPECT_EQ(event.text(A_METHOD), "foo");
	EXPECT_EQ(event.attributes.at(A_DATA), data);
	// The library answers events like calls; the broker does not mind.
	listener.send(message(STATUS, event.seq, 0, number(A_STATUS, 0) + number(A_OBJID, object)));
	EXPECT_EQ(heard(listener), "");
}

TEST_F(UbusDEvents, DoNotGoBackToTheirSender)
{
	RawClient both(socket());
	RawClient other(socket());
	both.listen("*");

	both.ask(send_event(1, "foo"));
	other.ask(send_event(1, "bar"));
	EXPECT_EQ(heard(both), "bar ");
}

TEST_F(UbusDEvents, AreDeliveredOncePerObject)
{
	RawClient sender(socket());
	RawClient listener(socket());
	const auto object = listener.listen("foo");
	listener.ask(register_pattern(1, object, "f*"));
	listener.ask(register_pattern(1, object, "foo"));
	listener.listen("fo*");

	sender.ask(send_event(1, "foo"));
	EXPECT_EQ(heard(listener), "foo foo ");
}

TEST_F(UbusDEvents, EndWithTheirObject)
{
	RawClient sender(socket());
	RawClient listener(socket());
	const auto object = listener.listen("foo");

	EXPECT_EQ(listener.ask(message(REMOVE_OBJECT, 1, 0, number(A_OBJID, object))), 0);
	sender.ask(send_event(1, "foo"));
	EXPECT_EQ(heard(listener), "");
}

TEST_F(UbusDEvents, TellOfObjectsThatComeAndGo)
{
	RawClient listener(socket());
	RawClient owner(socket());
	listener.listen("ubus.object.*");
	const auto named = owner.add_object("one");
	const auto nameless = owner.add_object("");
	owner.ask(message(REMOVE_OBJECT, 1, 0, number(A_OBJID, nameless)));
	owner.ask(message(REMOVE_OBJECT, 1, 0, number(A_OBJID, named)));

	for (const char *id : {"ubus.object.add", "ubus.object.remove"}) {
		const Received event = listener.receive();
		EXPECT_EQ(event.text(A_METHOD), id);
		EXPECT_EQ(event.attributes.at(A_DATA),
			  field(F_INT32, "id", big_endian(named, 4)) + string_field("path", "one"));
	}
	EXPECT_EQ(heard(listener), "");
}

TEST_F(UbusDEvents, CannotBeTakenByTheObjectOfAnother)
{
	RawClient owner(socket());
	RawClient other(socket());
	const auto object = owner.add_object("one");

	EXPECT_EQ(other.ask(register_pattern(1, object, "*")), 6);
	other.ask(send_event(1, "foo"));
	EXPECT_EQ(heard(owner), "");
}

} // namespace
