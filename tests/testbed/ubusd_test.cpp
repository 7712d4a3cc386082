// SPDX-License-Identifier: ISC
// The broker: requests and answers, objects that come and go.
#include "bus_fixture.h"

using namespace bus_wire;
using bus_test::RawClient;

namespace
{

constexpr int ok = 0, invalid_command = 1, invalid_argument = 2, not_found = 4,
	      permission_denied = 6, not_supported = 8;

const std::string a_signature = field(F_TABLE, "go", field(F_INT32, "how", big_endian(3, 4)));

class UbusD : public bus_test::Bus
{
};

TEST_F(UbusD, GreetsEachClientWithAnIdOfItsOwn)
{
	RawClient one(socket());
	RawClient other(socket());

	EXPECT_EQ(one.hello().type, HELLO);
	EXPECT_NE(one.id(), 0u);
	EXPECT_NE(one.id(), other.id());
}

TEST_F(UbusD, AnswersEveryRequestWithAStatus)
{
	struct {
		const char *name;
		std::string request;
		int status;
	} const cases[] = {
		{"ping", message(PING, 5, 0), ok},
		{"lookup of everything", message(LOOKUP, 5, 0), ok},
		{"unknown attribute", message(LOOKUP, 5, 0, attribute(60, "abcd")), ok},
		{"lookup of nothing", message(LOOKUP, 5, 0, text(A_OBJPATH, "none")), not_found},
		{"lookup of the empty path", message(LOOKUP, 5, 0, text(A_OBJPATH, "")),
		 invalid_argument},
		{"prefix of nothing", message(LOOKUP, 5, 0, text(A_OBJPATH, "no*")), not_found},
		{"greeting", message(HELLO, 5, 0), invalid_command},
		{"type 12", message(12, 5, 0), invalid_command},
		{"type 255", message(255, 5, 0), invalid_command},
		{"subscription", message(SUBSCRIBE, 5, 0), not_supported},
		{"notification", message(NOTIFY, 5, 0), not_supported},
		{"empty path", message(ADD_OBJECT, 5, 0, text(A_OBJPATH, "")), invalid_argument},
		{"signature that is cut off",
		 message(ADD_OBJECT, 5, 0,
			 text(A_OBJPATH, "x") + attribute(A_SIGNATURE, a_signature.substr(0, 12))),
		 invalid_argument},
		{"method that is no table",
		 message(ADD_OBJECT, 5, 0,
			 text(A_OBJPATH, "x") + attribute(A_SIGNATURE, string_field("m", "v"))),
		 invalid_argument},
		{"argument that is no number",
		 message(ADD_OBJECT, 5, 0,
			 text(A_OBJPATH, "x") +
				 attribute(A_SIGNATURE,
					   field(F_TABLE, "m", string_field("a", "b")))),
		 invalid_argument},
		{"removal of nothing", message(REMOVE_OBJECT, 5, 0), invalid_argument},
		{"removal of what is not there",
		 message(REMOVE_OBJECT, 5, 0, number(A_OBJID, 5000)), not_found},
		{"call of nothing", message(INVOKE, 5, 0), invalid_argument},
		{"call without method",
		 message(INVOKE, 5, 0, number(A_OBJID, 5000) + attribute(A_DATA, "")),
		 invalid_argument},
		{"call of what is not there without data",
		 message(INVOKE, 5, 0, number(A_OBJID, 5000) + text(A_METHOD, "m")), not_found},
		{"call of what is not there", invoke(5, 5000, "m"), not_found},
		{"unknown method of the broker", invoke(5, 1, "none"), invalid_command},
		{"event without arguments",
		 message(INVOKE, 5, 0, number(A_OBJID, 1) + text(A_METHOD, "send")),
		 invalid_argument},
		{"event without id", invoke(5, 1, "send", field(F_TABLE, "data", "")),
		 invalid_argument},
		{"event without data", invoke(5, 1, "send", string_field("id", "x")),
		 invalid_argument},
		{"event of the broker's", send_event(5, "ubus.object.add"), permission_denied},
		{"event", send_event(5, "x"), ok},
		{"pattern without object", invoke(5, 1, "register", string_field("pattern", "x")),
		 invalid_argument},
		{"pattern for what is not there", register_pattern(5, 5000, "x"), not_found},
	};
	RawClient client(socket());

	for (const auto &[name, request, status] : cases) {
		EXPECT_EQ(client.ask(request), status) << name;
	}
}

TEST_F(UbusD, AnswersRepeatSequenceAndPeer)
{
	RawClient client(socket());

	client.send(message(PING, 0xabcd, 77, text(A_OBJPATH, "back")));
	const Received echo = client.receive();
	EXPECT_EQ(echo.type, DATA);
	EXPECT_EQ(echo.text(A_OBJPATH), "back");
	const Received status = client.receive();
	EXPECT_EQ(status.type, STATUS);
	for (const Received &answer : {echo, status}) {
		EXPECT_EQ(answer.seq, 0xabcd);
		EXPECT_EQ(answer.peer, 77u);
	}
}

TEST_F(UbusD, TakesMessagesInPiecesAndTogether)
{
	RawClient client(socket());

	for (const char byte : message(PING, 1, 0, text(A_OBJPATH, "ignored"))) {
		client.send({&byte, 1});
	}
	const auto expect_answers_to = [&client](int seq) {
		EXPECT_EQ(client.receive().seq, seq); // the data
		EXPECT_EQ(client.receive().seq, seq); // the status
	};
	expect_answers_to(1);
	client.send(message(PING, 2, 0) + message(PING, 3, 0) + message(PING, 4, 0).substr(0, 9));
	expect_answers_to(2);
	expect_answers_to(3);
	client.send(message(PING, 4, 0).substr(9));
	expect_answers_to(4);
}

TEST_F(UbusD, LooksUpByPathAndPrefixInPathOrder)
{
	RawClient owner(socket());
	RawClient client(socket());
	const auto beta = owner.add_object("beta", a_signature);
	owner.add_object("alpha.two");
	owner.add_object("alpha");
	owner.add_object("");

	const auto found = [&client](const std::string &request) {
		std::string paths;
		client.send(request);
		for (;;) {
			const Received answer = client.receive();
			if (answer.type == STATUS) {
				return paths + std::to_string(answer.number(A_STATUS));
			}
			paths += answer.text(A_OBJPATH) + " ";
		}
	};
	const auto lookup = [](const std::string &path) {
		return message(LOOKUP, 1, 0, text(A_OBJPATH, path));
	};
	EXPECT_EQ(found(message(LOOKUP, 1, 0)), "alpha alpha.two beta 0");
	EXPECT_EQ(found(lookup("*")), "alpha alpha.two beta 0");
	EXPECT_EQ(found(lookup("alpha*")), "alpha alpha.two 0");
	EXPECT_EQ(found(lookup("alpha.*")), "alpha.two 0");
	EXPECT_EQ(found(lookup("alpha")), "alpha 0");
	EXPECT_EQ(found(lookup("alph")), "4");
	EXPECT_EQ(found(lookup("*a")), "4");

	client.send(lookup("beta"));
	const Received answer = client.receive();
	EXPECT_EQ(answer.number(A_OBJID), beta);
	EXPECT_GE(beta, 1024u);
	EXPECT_NE(answer.number(A_OBJTYPE), 0u);
	EXPECT_EQ(answer.attributes.at(A_SIGNATURE), a_signature);
}

TEST_F(UbusD, ATypeIsGivenOnceAndUsedAgain)
{
	RawClient owner(socket());

	owner.send(message(ADD_OBJECT, 1, 0,
			   text(A_OBJPATH, "one") + attribute(A_SIGNATURE, a_signature)));
	const auto type = owner.receive().number(A_OBJTYPE);
	owner.receive();
	owner.send(message(ADD_OBJECT, 2, 0, text(A_OBJPATH, "two") + number(A_OBJTYPE, type)));
	EXPECT_FALSE(owner.receive().attributes.contains(A_OBJTYPE));
	owner.receive();
	owner.send(message(LOOKUP, 3, 0, text(A_OBJPATH, "two")));
	const Received answer = owner.receive();
	EXPECT_EQ(answer.number(A_OBJTYPE), type);
	EXPECT_EQ(answer.attributes.at(A_SIGNATURE), a_signature);
}

TEST_F(UbusD, ASecondObjectOfTheSamePathIsRefused)
{
	RawClient owner(socket());
	RawClient other(socket());
	const auto id = owner.add_object("one");

	EXPECT_EQ(owner.add_object("one"), 0u);
	EXPECT_EQ(other.add_object("one"), 0u);
	EXPECT_EQ(other.ask(message(REMOVE_OBJECT, 1, 0, number(A_OBJID, id))), permission_denied);
	EXPECT_EQ(owner.ask(message(REMOVE_OBJECT, 1, 0, number(A_OBJID, id))), ok);
	EXPECT_NE(other.add_object("one"), 0u);
}

TEST_F(UbusD, ObjectsGoWithTheirClient)
{
	RawClient watcher(socket());
	watcher.listen("ubus.object.remove");
	{
		RawClient owner(socket());
		owner.add_object("one");
		owner.add_object("");
	}
	const Received event = watcher.receive();
	EXPECT_EQ(event.type, INVOKE);
	EXPECT_EQ(event.text(A_METHOD), "ubus.object.remove");
	EXPECT_NE(event.attributes.at(A_DATA).find(string_field("path", "one")), std::string::npos);
	EXPECT_EQ(watcher.ask(message(LOOKUP, 1, 0, text(A_OBJPATH, "one"))), not_found);
	EXPECT_NE(watcher.add_object("one"), 0u);
}

} // namespace
