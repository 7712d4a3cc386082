// SPDX-License-Identifier: ISC
#include <cstring>
#include <gmock/gmock.h>

#include "discovery/check_method.h"
#include "discovery/query_fixture.h"
#include "support/served_object.h"

using testing::ElementsAre;

namespace
{

class CheckMethod : public QueryFixture
{
protected:
	// Whatever it comes to, the call itself succeeds and is answered once.
	Reply check(const Fields &arguments = {})
	{
		Reply reply = PendingCall("check-test", "check", arguments).wait_in_uloop();
		EXPECT_EQ(reply.status, 0);
		EXPECT_EQ(reply.messages, 1);
		return reply;
	}
	Reply check_answer(const HttpAnswer &what)
	{
		server.on("/update.xml", what);
		return check();
	}

	ServedObject object{"check-test", UBUS_METHOD_NOARG("check", handle_check)};
};

HttpAnswer offer_of(Manifest manifest)
{
	manifest.url = "http://a/";
	return answer(to_xml(manifest));
}

} // namespace

TEST_F(CheckMethod, AnswersWithTheOfferInSevenTexts)
{
	const Reply reply = check_answer(offer_of({.release_notes = "notes", .force_update = "0"}));
	EXPECT_EQ(reply.fields, (Fields{
					string_field("version", "2.0"),
					string_field("buildtime", "190000000"),
					string_field("releasenotes", "notes"),
					string_field("force", "0"),
					string_field("need_update", "1"),
					string_field("error_code", "0"),
					string_field("error_message", "No Error"),
				}));
}

TEST_F(CheckMethod, RemembersTheOutcome)
{
	struct Case {
		const char *buildtime;
		std::int32_t need_update, result;
		UpdateState state;
	};
	for (const Case &each : {Case{"172000000", 1, 0, UpdateState::XML_DONE},
				 Case{"171000000", 0, 0, UpdateState::XML_DONE},
				 Case{"", -1, 1, UpdateState::XML_PARSE},
				 Case{"172000000", 1, 0, UpdateState::XML_DONE}}) {
		SCOPED_TRACE(each.buildtime);
		check_answer(offer_of({.buildtime = each.buildtime}));
		EXPECT_EQ(update_context.need_update, each.need_update);
		EXPECT_EQ(update_context.result, each.result);
		EXPECT_EQ(update_context.state, each.state);
	}
}

TEST_F(CheckMethod, AnswersAFailureWithFiveEmptyTexts)
{
	check_answer(offer_of({}));
	const Reply reply = check_answer(answer(404, "<html><body>gone</body></html>"));
	EXPECT_EQ(reply.fields, failed_check);
	EXPECT_STREQ(update_manifest.version, "2.0");
}

TEST_F(CheckMethod, ForgetsTheMessageAndTheResultOfEarlierRequests)
{
	debug_mode = 0;
	std::strcpy(update_context.message, "of an earlier request");
	update_context.result = 5;
	update_context.state = UpdateState::WAIT_DELAY;
	check_answer(offer_of({}));
	EXPECT_STREQ(update_context.message, "");
	EXPECT_EQ(update_context.result, 0);

	std::strcpy(update_context.message, "of an earlier request");
	check_answer(answer("no XML"));
	EXPECT_STREQ(update_context.message, "");
}

TEST_F(CheckMethod, LeavesTheLastMessageOfItsOwn)
{
	check_answer(answer("no XML"));
	EXPECT_STREQ(update_context.message, "Error parsing XML recived from update server, can't "
					     "find 'buildtime' section\n");
}

TEST_F(CheckMethod, LeavesARunningJobAndTheBootPartitionAlone)
{
	UpdateJob &job = update_context.job;
	std::memset(static_cast<void *>(&job), 0x5a, sizeof(job));
	const std::string before(reinterpret_cast<const char *>(&job), sizeof(job));
	std::strcpy(update_context.boot_partition, "firmware2");
	check_answer(offer_of({}));
	check_answer(answer("no XML"));
	const std::string after(reinterpret_cast<const char *>(&job), sizeof(job));
	EXPECT_EQ(before, after);
	EXPECT_STREQ(update_context.boot_partition, "firmware2");
}

TEST_F(CheckMethod, TellsEverybodyWhatItAnswers)
{
	EventListener listener("fwupdate.*");
	for (const HttpAnswer &each : {offer_of({}), offer_of({.buildtime = "171000000"}),
				       answer("no XML"), answer(std::string(1025, ' '))}) {
		const Reply reply = check_answer(each);
		const std::optional<BusEvent> event = listener.next();
		ASSERT_TRUE(event);
		EXPECT_EQ(event->id, "fwupdate.avaliable");
		EXPECT_EQ(event->fields, reply.fields);
	}
	EXPECT_TRUE(listener.drain().empty());
}

TEST_F(CheckMethod, TakesNoNoticeOfArguments)
{
	server.on("/update.xml", offer_of({}));
	const Fields expected = check().fields;
	EXPECT_EQ(check({string_field("force", "1"), int32_field("timeout", 1)}).fields, expected);
}

TEST_F(CheckMethod, ValuesThatFillTheirFieldsRunOnIntoTheNext)
{
	const std::string version(20, 'v');
	const std::string notes(512, 'n');
	const Reply full_version = check_answer(offer_of({.version = version + "cut"}));
	EXPECT_EQ(text_of(full_version.fields, "version"), version + "190000000");

	const Reply full_notes =
		check_answer(answer("<?xml version=\"1.0\"?><u><buildtime>2</buildtime><url>u</url>"
				    "<release_notes>" +
				    notes + "cut</release_notes></u>"));
	EXPECT_EQ(text_of(full_notes.fields, "releasenotes"), notes + version + "2");
	EXPECT_EQ(text_of(full_notes.fields, "version"), version + "2");

	const Reply short_version = check_answer(offer_of({.version = std::string(19, 'v')}));
	EXPECT_EQ(text_of(short_version.fields, "version"), std::string(19, 'v'));
	EXPECT_EQ(text_of(short_version.fields, "releasenotes"), notes + std::string(19, 'v'));
}
