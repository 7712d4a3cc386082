// SPDX-License-Identifier: ISC
// A caller of `check` that listens to its event as well, on the same connection: what arrives first
// was sent first.
#include "support/bus_connection.h"
#include "support/fixture.h"

using namespace router_test;

namespace
{

class CheckEvent : public RouterTest
{
};

std::vector<std::string> arrivals;

void on_event(ubus_context *, ubus_event_handler *, const char *type, blob_attr *)
{
	arrivals.emplace_back(type);
}

void on_answer(ubus_request *, int, blob_attr *)
{
	arrivals.emplace_back("answer");
}

} // namespace

TEST_F(CheckEvent, ComesBeforeTheAnswer)
{
	const std::vector<std::string> expected = {"fwupdate.avaliable", "answer"};
	start_daemon();
	const Context bus_of_caller = connect_or_throw();
	ubus_event_handler listener = {};
	listener.cb = on_event;
	ASSERT_EQ(ubus_register_event_handler(bus_of_caller.get(), &listener, "fwupdate.*"), 0);
	for (const char *xml :
	     {"no XML", "<update><buildtime>1</buildtime><url>u</url></update>"}) {
		SCOPED_TRACE(xml);
		server.on("/update.xml", answer(xml));
		arrivals.clear();
		MessageBuffer arguments({});
		ubus_request request = {};
		ASSERT_EQ(ubus_invoke_async(bus_of_caller.get(), find_object("fwupdate")->id,
					    "check", arguments.head(), &request),
			  0);
		request.data_cb = on_answer;
		ubus_complete_request_async(bus_of_caller.get(), &request);
		const Deadline deadline;
		// The status comes last, and ends the request's place in the connection's list.
		while (!request.status_msg && take_messages(bus_of_caller.get(), deadline)) {
		}
		ASSERT_TRUE(request.status_msg);
		EXPECT_EQ(arrivals, expected);
	}
}
