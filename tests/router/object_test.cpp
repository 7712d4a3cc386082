// SPDX-License-Identifier: ISC
// The object on the bus: its methods, and `state`.
#include "support/fixture.h"

extern "C" {
#include <libubox/blobmsg.h>
}

using namespace router_test;

namespace
{

class Object : public RouterTest
{
};

class State : public RouterTest
{
};

Fields signature(std::initializer_list<std::pair<const char *, int>> arguments)
{
	Fields fields;
	for (const auto &[name, type] : arguments) {
		fields.push_back(int32_field(name, type));
	}
	return fields;
}

} // namespace

TEST_F(Object, OffersFourMethodsInOrder)
{
	start_daemon();
	const auto object = find_object("fwupdate");
	ASSERT_TRUE(object);
	ASSERT_EQ(object->methods.size(), 4u);
	EXPECT_EQ(object->methods[0].name, "check");
	EXPECT_EQ(object->methods[0].arguments, Fields{});
	EXPECT_EQ(object->methods[1].name, "update");
	EXPECT_EQ(object->methods[1].arguments, signature({{"force", BLOBMSG_TYPE_STRING},
							   {"partition", BLOBMSG_TYPE_STRING},
							   {"timeout", BLOBMSG_TYPE_INT32},
							   {"attempts", BLOBMSG_TYPE_INT32},
							   {"delay", BLOBMSG_TYPE_INT32}}));
	EXPECT_EQ(object->methods[2].name, "test");
	EXPECT_EQ(object->methods[2].arguments,
		  signature({{"file", BLOBMSG_TYPE_STRING}, {"partition", BLOBMSG_TYPE_STRING}}));
	EXPECT_EQ(object->methods[3].name, "state");
	EXPECT_EQ(object->methods[3].arguments, Fields{});
}

TEST_F(Object, UnknownMethodIsRefused)
{
	start_daemon();
	EXPECT_EQ(call("fwupdate", "upgrade").status, 3);
}

TEST_F(Object, LeavesTheBusWithTheDaemon)
{
	start_daemon();
	may_crash = true;
	daemon().kill();
	EXPECT_TRUE(wait_for_object_gone("fwupdate"));
}

TEST_F(Object, ArgumentOfTheWrongTypeCountsAsAbsent)
{
	start_daemon();
	// A number as file: as if there were none.
	const Reply reply = daemon().test({int32_field("file", 1)});
	EXPECT_EQ(text_of(reply.fields, "error_code"), "4");
	// A number as partition would be refused if it were looked at.
	EXPECT_EQ(daemon().test({int32_field("partition", 0)}).status, 0);
}

TEST_F(State, IsNoneBeforeAnyRequest)
{
	start_daemon();
	const Reply reply = daemon().state();
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.fields,
		  (Fields{string_field("state", "NONE"), string_field("message", "")}));
}

TEST_F(State, ShowsTheLastLoggedText)
{
	start_daemon();
	daemon().test({string_field("file", "/no/such/file")});
	EXPECT_EQ(daemon().state().fields,
		  (Fields{string_field("state", "NONE"),
			  string_field("message", "Can't open image [-2]")}));
}

TEST_F(State, IgnoresItsArguments)
{
	start_daemon();
	const Reply reply = call("fwupdate", "state", {string_field("state", "XML_DONE")});
	EXPECT_EQ(text_of(reply.fields, "state"), "NONE");
}
