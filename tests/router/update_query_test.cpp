// SPDX-License-Identifier: ISC
// When `update` asks the server, when it reuses an earlier answer, and what it says when the
// server has none.
#include "router/update_fixture.h"

using namespace router_test;

namespace
{

class UpdateQuery : public UpdateTest
{
};

TEST_F(UpdateQuery, IsAnsweredAtOnceWhenTheServerHasNoManifest)
{
	start_daemon();
	expect_outcome(daemon().update(),
		       {.code = 1, .text = query_failed, .version = "", .buildtime = ""});
	EXPECT_EQ(daemon().state_name(), "XML_PARSE");
	EXPECT_EQ(downloads(), 0u);
}

TEST_F(UpdateQuery, IsAnsweredAtOnceWhenTheServerCannotBeReached)
{
	files.set_manifest_url("http://127.0.0.1:" + std::to_string(unused_port()) + "/update.xml");
	start_daemon();
	// The log has a line of it, which is not taken for this code.
	expect_outcome(daemon().update(),
		       {.code = 1, .text = query_failed, .version = "", .buildtime = ""});
	EXPECT_EQ(syslog.count("Error on geting update info via CURL"), 1u);
	EXPECT_EQ(daemon().state_name(), "XML_CONNECT");
}

TEST_F(UpdateQuery, FailedQueryIsNotForcedIntoADownload)
{
	start_daemon();
	expect_outcome(
		daemon().update({string_field("force", "1")}),
		{.code = 1, .text = query_failed, .force = "1", .version = "", .buildtime = ""});
	EXPECT_EQ(downloads(), 0u);
}

TEST_F(UpdateQuery, FailedQueryShowsTheVersionThatWasOfferedBefore)
{
	offer();
	start_daemon();
	daemon().check();
	server.on(manifest_path, answer(500, "<html>down</html>"));
	daemon().check();
	expect_outcome(daemon().update(), {.code = 1, .text = query_failed});
}

TEST_F(UpdateQuery, FailedQueryShowsWhatItTookFromABrokenManifest)
{
	server.on(manifest_path, answer("<?xml version=\"1.0\"?><update><buildtime>5</buildtime>"
					"<version>9</version></update>"));
	start_daemon();
	expect_outcome(daemon().update(),
		       {.code = 1, .text = query_failed, .version = "", .buildtime = "5"});
}

TEST_F(UpdateQuery, AfterACheckThatFoundNothingNewerDoesNotAskTheServerAgain)
{
	offer(nothing_newer());
	start_daemon();
	daemon().check();
	offer();
	expect_outcome(daemon().update(), {.buildtime = router_builddate()});
	expect_outcome(daemon().update(), {.buildtime = router_builddate()});
	EXPECT_EQ(queries(), 1u);
}

TEST_F(UpdateQuery, AfterOneThatHadNothingToDoDoesNotAskTheServerAgain)
{
	offer(answer(404, ""), nothing_newer());
	start_daemon();
	EXPECT_EQ(code_of(daemon().update()), 0);
	EXPECT_EQ(code_of(daemon().update({string_field("force", "1")})), 2);
	EXPECT_EQ(queries(), 1u);
}

TEST_F(UpdateQuery, AfterAFailedQueryAsksTheServerAgain)
{
	start_daemon();
	daemon().check();
	EXPECT_EQ(code_of(daemon().update()), 1);
	EXPECT_EQ(code_of(daemon().update()), 1);
	offer(nothing_newer());
	EXPECT_EQ(code_of(daemon().update()), 0);
	EXPECT_EQ(queries(), 4u);
}

TEST_F(UpdateQuery, AfterASuccessfulJobAsksTheServerAgain)
{
	offer(answer(good_image()));
	start_daemon();
	EXPECT_EQ(code_of(daemon().update()), 0);
	EXPECT_EQ(daemon().state_name(), "WAIT_DELAY");
	offer(nothing_newer());
	EXPECT_EQ(code_of(daemon().update()), 0);
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	EXPECT_EQ(queries(), 2u);
	expect_installed();
}

} // namespace
