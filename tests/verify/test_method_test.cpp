// SPDX-License-Identifier: ISC
// The handler of `test`, served by this program's own event loop, so that the shared record can be
// looked at before and after.
#include "firmware_fixture.h"

#include "base/update_error.h"
#include "support/bus.h"
#include "support/served_object.h"
#include "verify/test_method.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr int invalid_argument = 2;
Fields reply_fields(const char *code, const char *message, const char *check_code)
{
	return {string_field("error_code", code), string_field("error_message", message),
		string_field("check_code", check_code), string_field("check_message", "No Error")};
}

Fields good_reply()
{
	return reply_fields("0", "No Error", "0");
}

Fields failed_reply(const char *check_code)
{
	return reply_fields("3", "Error on checking firmware", check_code);
}

class TestMethod : public FirmwareFixture
{
protected:
	void SetUp() override
	{
		FirmwareFixture::SetUp();
		write_bytes(firmware_path, build_uimage("data", {.entry_point = other_address}));
	}

	static Reply test(const Fields &arguments)
	{
		return PendingCall("tested", "test", arguments).wait_in_uloop();
	}

	static Reply test_file(const std::string &path)
	{
		return test({string_field("file", path)});
	}

private:
	ServedObject object_{"tested", UBUS_METHOD("test", handle_test, test_policy)};
};

} // namespace

TEST_F(TestMethod, TakesFileAndPartitionAsTexts)
{
	const auto object = find_object("tested");
	ASSERT_TRUE(object.has_value());
	ASSERT_EQ(object->methods.size(), 1U);
	EXPECT_EQ(object->methods[0].arguments,
		  (Fields{int32_field("file", BLOBMSG_TYPE_STRING),
			  int32_field("partition", BLOBMSG_TYPE_STRING)}));
}

TEST_F(TestMethod, AnswersForAGoodImage)
{
	update_context.result = ERROR_WRITE;
	update_context.state = UpdateState::XML_DONE;
	const Reply reply = test_file(firmware_path);
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.messages, 1);
	EXPECT_EQ(reply.fields, good_reply());
	EXPECT_EQ(update_context.result, NO_ERROR);
	EXPECT_EQ(update_context.state, UpdateState::NONE);
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(TestMethod, AnswersForABadImageAndLogsWhy)
{
	set_product_name("Model-Y");
	const Reply reply = test_file(firmware_path);
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.messages, 1);
	EXPECT_EQ(reply.fields, failed_reply("-9"));
	EXPECT_EQ(update_context.result, ERROR_IMAGE);
	EXPECT_EQ(update_context.state, UpdateState::NONE);
	EXPECT_EQ(logged(), Texts{"Bad Model [-9]"});
	EXPECT_STREQ(update_context.message, "Bad Model [-9]");
}

TEST_F(TestMethod, KeepsTheErrorCodeUntilTheNextTest)
{
	EXPECT_EQ(test_file("/tmp/nowhere").fields, failed_reply("-2"));
	EXPECT_EQ(update_context.result, ERROR_IMAGE);
	EXPECT_EQ(logged(), Texts{"Can't open image [-2]"});
	EXPECT_EQ(test_file(firmware_path).fields, good_reply());
	EXPECT_EQ(update_context.result, NO_ERROR);
}

TEST_F(TestMethod, AnswersWithoutAFile)
{
	update_context.state = UpdateState::WAIT_DELAY;
	const Reply reply = test({});
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.fields, reply_fields("4", "Error, image file not set", "0"));
	EXPECT_EQ(update_context.result, ERROR_NO_FILE);
	EXPECT_EQ(update_context.state, UpdateState::NONE);
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(TestMethod, TakesAFileThatIsNoTextAsMissing)
{
	for (const Field &file : {int32_field("file", 1), bool_field("file", true),
				  table_field("file", {string_field("file", firmware_path)}),
				  string_field("File", firmware_path)}) {
		SCOPED_TRACE(file);
		EXPECT_EQ(test({file}).fields, reply_fields("4", "Error, image file not set", "0"));
	}
}

TEST_F(TestMethod, IgnoresOtherArguments)
{
	const Reply reply = test({string_field("force", "1"), string_field("file", firmware_path),
				  int32_field("timeout", -1)});
	EXPECT_EQ(reply.fields, good_reply());
}

TEST_F(TestMethod, TakesAnEmptyFileTextAsAPath)
{
	EXPECT_EQ(test_file("").fields, failed_reply("-2"));
	EXPECT_EQ(logged(), Texts{"Can't open image [-2]"});
}

TEST_F(TestMethod, KeepsThePartition)
{
	for (const std::string &name : {std::string("x"), name_of_31, std::string("firmware2")}) {
		SCOPED_TRACE(name);
		const Reply reply = test(
			{string_field("partition", name), string_field("file", firmware_path)});
		EXPECT_EQ(reply.fields, good_reply());
		EXPECT_STREQ(update_context.boot_partition, name.c_str());
	}
	test_file(firmware_path);
	test_file("/tmp/nowhere");
	test({int32_field("partition", 1)});
	EXPECT_STREQ(update_context.boot_partition, "firmware2");
}

TEST_F(TestMethod, KeepsThePartitionOfABadOrMissingFileToo)
{
	test({string_field("partition", "one"), string_field("file", "/tmp/nowhere")});
	EXPECT_STREQ(update_context.boot_partition, "one");
	test({string_field("partition", "two")});
	EXPECT_STREQ(update_context.boot_partition, "two");
}

TEST_F(TestMethod, RefusesABadPartitionBeforeItLooksAtTheFile)
{
	// Anything that looked at the file would have changed the state.
	for (const std::string &name :
	     {std::string(), name_of_31 + "p", std::string(33, 'p'), std::string(3000, 'p')}) {
		for (const Fields &file :
		     {Fields{string_field("file", firmware_path)},
		      Fields{string_field("file", "/tmp/nowhere")}, Fields{}}) {
			SCOPED_TRACE(testing::PrintToString(name.size()));
			update_context.result = ERROR_WRITE;
			update_context.state = UpdateState::WAIT_DELAY;
			std::strcpy(update_context.boot_partition, "earlier");
			Fields arguments = file;
			arguments.push_back(string_field("partition", name));
			const Reply reply = test(arguments);
			EXPECT_EQ(reply.status, invalid_argument);
			EXPECT_EQ(reply.messages, 0);
			EXPECT_EQ(update_context.result, NO_ERROR);
			EXPECT_EQ(update_context.state, UpdateState::WAIT_DELAY);
			EXPECT_STREQ(update_context.boot_partition, "earlier");
		}
	}
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(TestMethod, OverwritesTheErrorCodeOfARunningJobAndNothingElseOfIt)
{
	update_context.job.active = true;
	update_context.job.attempts = 3;
	update_context.job.job_result = ERROR_DOWNLOAD;
	update_context.need_update = 1;
	update_context.state = UpdateState::FIRMWARE_CONNECT;
	test_file("/tmp/nowhere");
	EXPECT_EQ(update_context.result, ERROR_IMAGE);
	EXPECT_EQ(update_context.state, UpdateState::NONE);
	EXPECT_TRUE(update_context.job.active);
	EXPECT_EQ(update_context.job.attempts, 3);
	EXPECT_EQ(update_context.job.job_result, ERROR_DOWNLOAD);
	EXPECT_EQ(update_context.need_update, 1);
}
