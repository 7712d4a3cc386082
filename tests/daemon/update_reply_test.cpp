// SPDX-License-Identifier: ISC
#include "daemon/update_reply.h"

#include <cstring>

#include "base/records.h"
#include "base/update_error.h"
#include "support/fixture.h"
#include "support/served_object.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

int answer_with_result(ubus_context *, ubus_object *, ubus_request_data *request, const char *,
		       blob_attr *)
{
	reply_update_result(request, false);
	return 0;
}

// An object of this process whose one method sends the reply.
class UpdateReply : public RouterFixture
{
protected:
	void TearDown() override
	{
		update_context = {};
		update_manifest = {};
		RouterFixture::TearDown();
	}

	static Fields reply(std::int32_t result, const char *message)
	{
		update_context.result = result;
		std::strcpy(update_context.message, message);
		return PendingCall("replies", "send").wait_in_uloop().fields;
	}

	ServedObject object{"replies", {"send", answer_with_result, 0, 0, nullptr, 0}};
};

} // namespace

TEST_F(UpdateReply, CarriesFiveStringsInOrder)
{
	std::strcpy(update_manifest.version, "2.0");
	std::strcpy(update_manifest.buildtime, "174200000");
	std::strcpy(update_manifest.force_update, "1"); // the server's own is not the request's
	EXPECT_EQ(reply(6, ""),
		  (Fields{string_field("version", "2.0"), string_field("buildtime", "174200000"),
			  string_field("force_update", "0"), string_field("error_code", "6"),
			  string_field("error_message", "Already updating")}));
}

TEST_F(UpdateReply, EachCodeHasItsText)
{
	const struct {
		std::int32_t code;
		const char *text;
		const char *text_after_a_log_line;
	} table[] = {
		{0, "No Error", "No Error"},
		{1, "Error on checking update avialability",
		 "Error on checking update avialability"},
		{2, "Error on getting firmware", "Bad Model [-9]\n"},
		{3, "Error on checking firmware", "Bad Model [-9]\n"},
		{4, "No Error", "No Error"},
		{5, "Error on writing firmware", "Bad Model [-9]\n"},
		{6, "Already updating", "Already updating"},
		{7, "No Error", "No Error"},
		{-1, "No Error", "No Error"},
		{INT32_MIN, "No Error", "No Error"},
	};
	for (const auto &row : table) {
		const Fields silent = reply(row.code, "");
		EXPECT_EQ(text_of(silent, "error_code"), std::to_string(row.code));
		EXPECT_EQ(text_of(silent, "error_message"), row.text) << row.code;
		EXPECT_EQ(text_of(reply(row.code, "Bad Model [-9]\n"), "error_message"),
			  row.text_after_a_log_line)
			<< row.code;
	}
}
