// SPDX-License-Identifier: ISC
// The arguments of `update`.
#include <limits>

#include "router/update_fixture.h"

using namespace router_test;

namespace
{

class UpdateRequest : public UpdateTest
{
};

TEST_F(UpdateRequest, IsAnsweredAtOnceWhenNothingIsNewer)
{
	offer(nothing_newer());
	start_daemon();
	expect_outcome(daemon().update(), {.buildtime = router_builddate()});
	EXPECT_EQ(downloads(), 0u);
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	EXPECT_EQ(syslog.texts(), std::vector<std::string>{});
}

TEST_F(UpdateRequest, IsForcedByTheNumberOneAsText)
{
	const std::vector<std::string> forcing = {"1",	"01", "0001",  " 1",  "\t1",  "\n 1",
						  "+1", "1 ", " +01 ", "1.9", "1true"};
	offer(answer(404, "no such firmware"), nothing_newer());
	start_daemon();
	for (const std::string &text : forcing) {
		SCOPED_TRACE("force '" + text + "'");
		expect_outcome(daemon().update({string_field("force", text)}),
			       {.code = 2,
				.text = download_failed,
				.force = "1",
				.buildtime = router_builddate()});
	}
	EXPECT_EQ(downloads(), forcing.size());
}

TEST_F(UpdateRequest, IsNotForcedByAnyOtherText)
{
	offer(nothing_newer());
	start_daemon();
	for (const char *text :
	     {"", " ", "0", "2", "10", "11", "-1", "+-1", "- 1", "true", "yes", "on", "force", "x1",
	      "0x1", ".1", "4294967297", "-4294967295", "18446744073709551617"}) {
		SCOPED_TRACE(std::string("force '") + text + "'");
		expect_outcome(daemon().update({string_field("force", text)}),
			       {.buildtime = router_builddate()});
	}
	EXPECT_EQ(downloads(), 0u);
}

TEST_F(UpdateRequest, IsNotForcedByAValueThatIsNoText)
{
	const std::vector<Field> values = {int32_field("force", 1), int64_field("force", 1),
					   int16_field("force", 1), bool_field("force", true),
					   table_field("force", {string_field("", "1")})};
	offer(nothing_newer());
	start_daemon();
	for (const Field &value : values) {
		SCOPED_TRACE(value);
		expect_outcome(daemon().update({value}), {.buildtime = router_builddate()});
	}
	EXPECT_EQ(downloads(), 0u);
}

TEST_F(UpdateRequest, WithABadPartitionIsRefusedWithoutAnAnswer)
{
	offer();
	start_daemon();
	for (const std::string &name :
	     {std::string(), std::string(32, 'p'), std::string(33, 'p'), std::string(2000, 'p')}) {
		SCOPED_TRACE("partition '" + name + "'");
		const Reply reply = daemon().update({string_field("partition", name)});
		EXPECT_EQ(reply.status, 2);
		EXPECT_EQ(reply.messages, 0);
	}
	EXPECT_EQ(queries(), 0u);
	EXPECT_EQ(daemon().state_name(), "NONE");
}

TEST_F(UpdateRequest, WithABadPartitionKeepsTheOneChosenBefore)
{
	offer(answer(good_image()), nothing_newer());
	start_daemon();
	daemon().update({string_field("partition", "rootfs")});
	daemon().update({string_field("partition", "")});
	daemon().update({string_field("partition", std::string(32, 'p'))});
	EXPECT_EQ(code_of(daemon().update({string_field("force", "1")})), 0);
	expect_recorded("rootfs");
	expect_installed();
}

TEST_F(UpdateRequest, WithABadPartitionEmptiesTheMessageAllTheSame)
{
	start_daemon();
	daemon().check();
	ASSERT_NE(text_of(daemon().state().fields, "message"), "");
	daemon().update({string_field("partition", "")});
	EXPECT_EQ(text_of(daemon().state().fields, "message"), "");
}

TEST_F(UpdateRequest, PartitionOf31CharactersIsRecordedWhole)
{
	const std::string name = "a-partition-of-31-characters-xy";
	ASSERT_EQ(name.size(), 31u);
	offer(answer(good_image()));
	start_daemon();
	EXPECT_EQ(code_of(daemon().update({string_field("partition", name)})), 0);
	expect_recorded(name);
	expect_installed();
}

TEST_F(UpdateRequest, PartitionIsKeptForLaterUpdates)
{
	offer(answer(good_image()), nothing_newer());
	start_daemon();
	EXPECT_EQ(code_of(daemon().update({string_field("partition", "kernel")})), 0);
	EXPECT_EQ(code_of(daemon().update({string_field("force", "1")})), 0);
	expect_recorded("kernel");
	expect_installed();
}

TEST_F(UpdateRequest, AttemptsAreDownloadsAndAtLeastOne)
{
	using Limits = std::numeric_limits<std::int32_t>;
	struct {
		std::int32_t attempts;
		std::size_t downloads;
	} const cases[] = {{Limits::min(), 1},
			   {Limits::min() + 1, 1},
			   {-1, 1},
			   {0, 1},
			   {1, 1},
			   {2, 2},
			   {3, 3},
			   {5, 5}};
	offer(answer(404, ""));
	start_daemon();
	std::size_t before = 0;
	for (const auto &row : cases) {
		SCOPED_TRACE(row.attempts);
		EXPECT_EQ(code_of(daemon().update({int32_field("attempts", row.attempts)})), 2);
		EXPECT_EQ(downloads() - before, row.downloads);
		before = downloads();
	}
}

TEST_F(UpdateRequest, AttemptsThatAreNoInt32CountAsAbsent)
{
	offer(answer(404, ""));
	start_daemon();
	EXPECT_EQ(code_of(daemon().update({string_field("attempts", "3")})), 2);
	EXPECT_EQ(code_of(daemon().update({int64_field("attempts", 3)})), 2);
	EXPECT_EQ(code_of(daemon().update({int16_field("attempts", 3)})), 2);
	EXPECT_EQ(downloads(), 3u);
}

// With a time-out of 0 the download would be given up, and with the delay the answer would not
// come.
TEST_F(UpdateRequest, TimesThatAreNoInt32CountAsAbsent)
{
	offer(answer(good_image()));
	start_daemon();
	expect_outcome(
		daemon().update({string_field("timeout", "0"), string_field("delay", "600")}), {});
	expect_outcome(daemon().update({int64_field("timeout", 0), int64_field("delay", 600)}), {});
	EXPECT_TRUE(files.wait_for_tool_calls(installer, 2));
	may_leave_image = true;
}

TEST_F(UpdateRequest, UnknownArgumentsAreIgnored)
{
	offer(nothing_newer());
	start_daemon();
	expect_outcome(daemon().update({string_field("forced", "1"), string_field("Force", "1"),
					int32_field("", 1), string_field("attempt", "x")}),
		       {.buildtime = router_builddate()});
	EXPECT_EQ(downloads(), 0u);
}

TEST_F(UpdateRequest, EmptiesTheMessageOfEarlierOnes)
{
	offer(answer(404, ""));
	start_daemon();
	daemon().update({int32_field("timeout", 0)});
	EXPECT_EQ(text_of(daemon().state().fields, "message"),
		  "Unable to download firmware: timeout\n");
	offer(nothing_newer());
	daemon().update();
	EXPECT_EQ(text_of(daemon().state().fields, "message"), "");
}

} // namespace
