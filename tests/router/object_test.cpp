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
protected:
	static std::vector<std::string> names(const Reply &reply)
	{
		return names_of(reply.fields);
	}
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

TEST_F(State, ChangesNothing)
{
	offer();
	start_daemon();
	daemon().check();
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
}

TEST_F(State, CountsAre64BitNumbersInATable)
{
	offer(answer(std::string(3000, 'x')).in_pieces(3).hold());
	start_daemon();
	PendingCall update = daemon().start_update();
	ASSERT_TRUE(server.wait_for_requests("/firmware.bin", 1));
	server.release();
	ASSERT_TRUE(daemon().wait_for_state("FIRMWARE_CONNECT"));
	ASSERT_TRUE(eventually([&] { return find_field(daemon().state().fields, "progress"); }));
	const Reply reply = daemon().state();
	EXPECT_EQ(names(reply), (std::vector<std::string>{"state", "message", "progress"}));
	const Field *progress = find_field(reply.fields, "progress");
	EXPECT_EQ(names_of(progress->members), (std::vector<std::string>{"total", "now"}));
	EXPECT_EQ(progress->members[0], int64_field("total", 3000));
	EXPECT_EQ(progress->members[1].type, BLOBMSG_TYPE_INT64);
	server.release();
	server.release();
	update.wait();
}

TEST_F(State, HasNoProgressWhileTheSizeIsUnknown)
{
	offer(answer(std::string(3000, 'x')).in_pieces(3).without_length().hold());
	start_daemon();
	PendingCall update = daemon().start_update();
	server.release();
	ASSERT_TRUE(server.wait_for_pieces("/firmware.bin", 1));
	ASSERT_TRUE(daemon().wait_for_state("FIRMWARE_CONNECT"));
	EXPECT_EQ(names(daemon().state()), (std::vector<std::string>{"state", "message"}));
	server.release();
	server.release();
	update.wait();
}

TEST_F(State, HasNoProgressDuringTheDelay)
{
	may_leave_image = true;
	files.install_tool("/sbin/sysupgrade", "exit 0");
	offer(answer(good_image()));
	start_daemon();
	PendingCall update = daemon().start_update({int32_field("delay", 3600)});
	ASSERT_TRUE(daemon().wait_for_state("WAIT_DELAY"));
	EXPECT_EQ(names(daemon().state()), (std::vector<std::string>{"state", "message"}));
}
