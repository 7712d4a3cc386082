// SPDX-License-Identifier: ISC
#include "daemon/state_method.h"

#include <cstring>

#include "support/fixture.h"
#include "support/served_object.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

class StateAnswer : public RouterFixture
{
protected:
	void TearDown() override
	{
		update_context = {};
		RouterFixture::TearDown();
	}

	static Fields state()
	{
		return PendingCall("state-test", "state").wait_in_uloop().fields;
	}

	ServedObject object{"state-test", UBUS_METHOD_NOARG("state", handle_state)};
};

} // namespace

TEST(StateMethod, EachStateHasItsName)
{
	const char *const names[] = {
		"NONE",		"NETWORK_GET", "NETWORK_CHECK",	 "XML_CONNECT",
		"XML_GET",	"XML_PARSE",   "XML_DONE",	 "FIRMWARE_CONNECT",
		"FIRMWARE_GET", "WAIT_DELAY",  "FIRMWARE_CHECK", "FIRMWARE_UPDATE",
	};
	unsigned value = 0;
	for (const char *name : names) {
		EXPECT_STREQ(update_state_name(static_cast<UpdateState>(value++)), name);
	}
}

TEST(StateMethod, ValueBeyondTheStatesIsUnknown)
{
	EXPECT_STREQ(update_state_name(static_cast<UpdateState>(12)), "UNKNOWN");
	EXPECT_STREQ(update_state_name(static_cast<UpdateState>(0xffffffff)), "UNKNOWN");
}

TEST_F(StateAnswer, HasProgressOnlyInADownloadOfKnownSize)
{
	std::strcpy(update_context.message, "a line\n");
	for (const std::uint32_t total : {0u, 1u}) {
		update_context.job.progress = {total, 5, 0};
		for (unsigned value = 0; value <= 12; value++) {
			SCOPED_TRACE(testing::Message() << "state " << value << ", " << total);
			update_context.state = static_cast<UpdateState>(value);
			Fields expected = {
				string_field("state", update_state_name(update_context.state)),
				string_field("message", "a line\n")};
			if (update_context.state == UpdateState::FIRMWARE_CONNECT && total != 0) {
				expected.push_back(
					table_field("progress", {int64_field("total", total),
								 int64_field("now", 5)}));
			}
			EXPECT_EQ(state(), expected);
		}
	}
}

TEST_F(StateAnswer, CountsBeyond2GigabytesStayPositive)
{
	update_context.state = UpdateState::FIRMWARE_CONNECT;
	update_context.job.progress = {0xffffffff, 0x80000000, 0};
	const Fields fields = state();
	const Field *progress = find_field(fields, "progress");
	ASSERT_NE(progress, nullptr);
	EXPECT_EQ(progress->members,
		  (Fields{int64_field("total", 4294967295), int64_field("now", 2147483648)}));
}

TEST_F(StateAnswer, LeavesTheRecordAsItIs)
{
	update_context.state = UpdateState::FIRMWARE_CONNECT;
	update_context.result = 3;
	update_context.job.progress = {9, 5, 0};
	std::strcpy(update_context.message, "a line\n");
	std::string before(sizeof(update_context), '\0');
	std::memcpy(before.data(), &update_context, before.size());
	state();
	EXPECT_EQ(std::memcmp(before.data(), &update_context, before.size()), 0);
}
