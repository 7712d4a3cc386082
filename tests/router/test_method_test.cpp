// SPDX-License-Identifier: ISC
// The method `test` of the running daemon: its answers, its log, and what it leaves for `state`,
// for a later `update` and for a job that runs meanwhile.
#include "update_fixture.h"

using namespace router_test;

namespace
{

constexpr const char *tested_file = "/tmp/image.bin";
// As entry point it asks for metadata, another one for the data CRC.
constexpr std::uint32_t load_address = 0x80008000;
constexpr std::uint32_t other_address = load_address + 64;
constexpr int invalid_argument = 2;

Fields reply_fields(const char *code, const char *message, const char *check_code)
{
	return {string_field("error_code", code), string_field("error_message", message),
		string_field("check_code", check_code), string_field("check_message", "No Error")};
}

Fields failed_reply(const char *check_code)
{
	return reply_fields("3", "Error on checking firmware", check_code);
}

class TestMethodOnTheBus : public UpdateTest
{
protected:
	static std::string uimage(const std::string &name)
	{
		return build_uimage(noise(1000), {.entry_point = other_address, .name = name});
	}

	Reply test_file(const std::string &path)
	{
		return daemon().test({string_field("file", path)});
	}

	Reply test_image(const std::string &bytes)
	{
		files.write(tested_file, bytes);
		return test_file(tested_file);
	}

	// An update from the manifest to the installer.
	void update_to_the_end(const Fields &arguments = {})
	{
		const Reply reply = daemon().update(arguments);
		EXPECT_EQ(code_of(reply), 0);
		expect_installed();
	}
};

} // namespace

TEST_F(TestMethodOnTheBus, FindsAnImageOfThisRouterGood)
{
	start_daemon();
	for (const std::string &image :
	     {uimage(router_model()),
	      make_uimage(noise(2000), {.name = router_model(), .entry_point = other_address}),
	      with_metadata(noise(2000), metadata_json({router_model()}, "77")),
	      with_metadata(make_uimage(noise(2000),
					{.name = router_model(), .entry_point = load_address}),
			    metadata_json({"x"}))}) {
		const Reply reply = test_image(image);
		EXPECT_EQ(reply.status, 0);
		EXPECT_EQ(reply.messages, 1);
		EXPECT_EQ(reply.fields, reply_fields("0", "No Error", "0"));
		EXPECT_EQ(read_file(tested_file), image);
	}
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{});
	EXPECT_FALSE(exists(std::string(tested_file) + ".signature"));
}

TEST_F(TestMethodOnTheBus, NamesTheCodeInTheAnswerAndTheCauseInTheLog)
{
	start_daemon();
	std::string bad_header = uimage(router_model());
	flip_bit(bad_header, 5);
	const struct {
		std::string image;
		const char *code;
		const char *line;
	} cases[] = {
		{"", "-4", "Can't mmap image [-4]"},
		{"text", "-5", "Bad Magic Number [-5]"},
		{bad_header, "-6", "Bad Header checksum [-6]"},
		{uimage(router_model()) + "x", "-7", "Bad Image checksum [-7]"},
		{uimage("OTHER"), "-9", "Bad Model [-9]"},
		{with_metadata("x", metadata_json({router_model(), "OTHER"}, "1")), "-9",
		 "Bad Model [-9]"},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.line);
		syslog.clear();
		const Reply reply = test_image(row.image);
		EXPECT_EQ(reply.status, 0);
		EXPECT_EQ(reply.fields, failed_reply(row.code));
		EXPECT_EQ(syslog.texts(), std::vector<std::string>{row.line});
		EXPECT_EQ(daemon().state().fields, (Fields{string_field("state", "NONE"),
							   string_field("message", row.line)}));
	}
}

TEST_F(TestMethodOnTheBus, RefusesPathsThatAreNoFiles)
{
	start_daemon();
	const Gate pipe;
	EXPECT_EQ(test_file("/tmp/nowhere").fields, failed_reply("-2"));
	EXPECT_EQ(test_file("").fields, failed_reply("-2"));
	EXPECT_EQ(test_file("/tmp").fields, failed_reply("-4"));
	EXPECT_EQ(test_file("/dev/null").fields, failed_reply("-4"));
	EXPECT_EQ(test_file(pipe.path()).fields, failed_reply("-4"));
	EXPECT_EQ(test_file("/" + std::string(100000, 'x')).fields, failed_reply("-2"));
	EXPECT_EQ(daemon().state_name(), "NONE");
	// Nothing of it is left for the next one.
	EXPECT_EQ(test_image(uimage(router_model())).fields, reply_fields("0", "No Error", "0"));
}

TEST_F(TestMethodOnTheBus, RefusesAPathThatFwtoolCannotBeGiven)
{
	start_daemon();
	const std::string path = "/tmp/" + std::string(108, 'p');
	files.write(path, with_metadata(noise(500), metadata_json({router_model()}, "77")));
	EXPECT_EQ(test_file(path).fields, failed_reply("-5"));
	EXPECT_EQ(syslog.count("Error checking firmware via fwtools: \"/usr/bin/fwtool -i /tmp/p"),
		  1U);
	files.write(path, with_metadata(build_uimage("x", {.entry_point = load_address,
							   .name = router_model()}),
					"{}"));
	EXPECT_EQ(test_file(path).fields, failed_reply("-7"));
	EXPECT_EQ(syslog.count("Error on checking signature via fwtool"), 1U);
	const std::string shorter = path.substr(0, path.size() - 1);
	files.write(shorter, read_file(path));
	EXPECT_EQ(test_file(shorter).fields, reply_fields("0", "No Error", "0"));
}

TEST_F(TestMethodOnTheBus, AnswersWithoutAFile)
{
	start_daemon();
	const Reply reply = daemon().test();
	EXPECT_EQ(reply.status, 0);
	EXPECT_EQ(reply.fields, reply_fields("4", "Error, image file not set", "0"));
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{});
}

TEST_F(TestMethodOnTheBus, RefusesABadPartitionWithoutAnAnswer)
{
	start_daemon();
	files.write(tested_file, uimage(router_model()));
	for (const std::string &name :
	     {std::string(), std::string(32, 'p'), std::string(999, 'p')}) {
		const Field partition = string_field("partition", name);
		for (const Fields &arguments :
		     {Fields{string_field("file", tested_file), partition}, Fields{partition}}) {
			SCOPED_TRACE(name.size());
			const Reply reply = daemon().test(arguments);
			EXPECT_EQ(reply.status, invalid_argument);
			EXPECT_EQ(reply.messages, 0);
		}
	}
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{});
}

TEST_F(TestMethodOnTheBus, LeavesNoRefusedPartitionToALaterUpdate)
{
	start_daemon();
	offer(answer(good_image()));
	daemon().test({string_field("partition", std::string(32, 'p'))});
	update_to_the_end();
	expect_recorded("firmware2"); // the environment's own
}

TEST_F(TestMethodOnTheBus, MakesALaterUpdateAskTheServerAgain)
{
	start_daemon();
	offer({.buildtime = "1"});
	daemon().check();
	daemon().update();
	EXPECT_EQ(server.requests("/update.xml").size(), 1U) << "the query still stands";
	daemon().test({string_field("partition", "")});
	daemon().update();
	EXPECT_EQ(server.requests("/update.xml").size(), 1U) << "a refused test changes nothing";
	daemon().test();
	daemon().update();
	EXPECT_EQ(server.requests("/update.xml").size(), 2U);
}

TEST_F(TestMethodOnTheBus, OverwritesStateAndPartitionOfARunningJobThatGoesOn)
{
	start_daemon();
	const std::string image = good_image();
	offer(answer(image).in_pieces(2).hold());
	PendingCall update = daemon().start_update({string_field("partition", "firmware")});
	ASSERT_TRUE(daemon().wait_for_state("FIRMWARE_CONNECT"));
	ASSERT_TRUE(server.wait_for_requests("/firmware.bin", 1));

	const Reply reply = daemon().test(
		{string_field("file", "/tmp/nowhere"), string_field("partition", "firmware2")});
	EXPECT_EQ(reply.fields, failed_reply("-2"));
	EXPECT_EQ(daemon().state().fields,
		  (Fields{string_field("state", "NONE"),
			  string_field("message", "Can't open image [-2]")}));
	EXPECT_FALSE(update.finished());

	server.release_all();
	const Reply end = update.wait();
	EXPECT_EQ(end.status, 0);
	EXPECT_EQ(code_of(end), 0);
	EXPECT_EQ(text_of(end.fields, "error_message"), "No Error");
	expect_recorded("firmware2");
	expect_installed();
}
