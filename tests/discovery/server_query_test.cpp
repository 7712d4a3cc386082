// SPDX-License-Identifier: ISC
#include <csignal>
#include <gmock/gmock.h>
#include <unistd.h>

#include "discovery/query_fixture.h"

using testing::IsEmpty;

namespace
{

class ServerQuery : public QueryFixture
{
};

struct DecisionCase {
	const char *device;
	std::string server;
	std::optional<std::string> force;
	int result;
};

} // namespace

TEST_F(ServerQuery, ComparesTheBuildsAsUnsignedNumbers)
{
	const std::vector<DecisionCase> cases = {
		{"100", "200", {}, 1},
		{"200", "100", {}, 0},
		{"199", "200", {}, 1},
		{"200", "200", {}, 0},
		{"", "1", {}, 1}, // an unknown build is the oldest
		{"", "0", {}, 0},
		{"unknown", "1", {}, 1},
		{"100", "unknown", {}, 0},
		{"100", " 101", {}, 1},
		{"100", "101 and text", {}, 1},
		{"100", "0x65", {}, 0},
		{"2147483647", "-1", {}, 1}, // the largest there is
		{"-1", "2147483647", {}, 0},
		{"-1", "-1", {}, 0},
		{"2147483646", "2147483647", {}, 0}, // cut to 214748364
		{"214748363", "2147483647", {}, 1},
		{"99999999999", "-1", {}, 1},  // stops at 2147483647
		{"-99999999999", "-1", {}, 1}, // stops at -2147483648
	};
	for (const DecisionCase &each : cases) {
		SCOPED_TRACE(std::string(each.device) + " offered " + each.server);
		set_builddate(each.device);
		EXPECT_EQ(query({.buildtime = each.server, .force_update = each.force}),
			  each.result);
		EXPECT_EQ(update_context.state, UpdateState::XML_DONE);
	}
	EXPECT_THAT(query_messages(), IsEmpty());
}

TEST_F(ServerQuery, ForceOffersOtherBuildsButNeverTheInstalledOne)
{
	const std::vector<DecisionCase> cases = {
		{"200", "100", "1", 1},	  {"100", "200", "1", 1},  {"200", "200", "1", 0},
		{"", "0", "1", 0},	  {"", "-5", "1", 1},	   {"200", "100", "0", 0},
		{"200", "100", "11", 0},  {"200", "100", "1 ", 0}, {"200", "100", " 1", 0},
		{"200", "100", "yes", 0}, {"200", "100", "01", 0}, {"100", "200", "0", 1},
	};
	for (const DecisionCase &each : cases) {
		SCOPED_TRACE(std::string(each.device) + " offered " + each.server + " forced " +
			     *each.force);
		set_builddate(each.device);
		EXPECT_EQ(query({.buildtime = each.server, .force_update = each.force}),
			  each.result);
	}
}

TEST_F(ServerQuery, KeepsEveryValueOfTheManifest)
{
	EXPECT_EQ(query({.version = "2.0",
			 .buildtime = "1741176000",
			 .url = "http://a/fw.zip",
			 .release_notes = " Better.\n",
			 .force_update = "12",
			 .archive = "1",
			 .file_name = "image.bin"}),
		  1);
	EXPECT_STREQ(update_manifest.version, "2.0");
	EXPECT_STREQ(update_manifest.buildtime, "174117600");
	EXPECT_STREQ(update_manifest.url, "http://a/fw.zip");
	EXPECT_STREQ(update_manifest.release_notes, " Better.\n");
	EXPECT_STREQ(update_manifest.force_update, "12");
	EXPECT_STREQ(update_manifest.archive, "1");
	EXPECT_STREQ(update_manifest.file_name, "image.bin");
}

// An element takes along what is in it: each of these is found only while those around it are still
// there.
TEST_F(ServerQuery, TakesTheValuesInTheirOrder)
{
	EXPECT_EQ(query(answer("<?xml version=\"1.0\"?><update>"
			       "<file_name>f<archive>1<force_update>2<release_notes>n<version>v"
			       "<url>u<buildtime>190000000</buildtime></url></version>"
			       "</release_notes></force_update></archive></file_name></update>")),
		  1);
	EXPECT_STREQ(update_manifest.buildtime, "190000000");
	EXPECT_STREQ(update_manifest.url, "u");
	EXPECT_STREQ(update_manifest.version, "v");
	EXPECT_STREQ(update_manifest.release_notes, "n");
	EXPECT_STREQ(update_manifest.force_update, "2");
	EXPECT_STREQ(update_manifest.archive, "1");
	EXPECT_STREQ(update_manifest.file_name, "f");
}

TEST_F(ServerQuery, CutsEveryValueToItsLimit)
{
	const std::string file_name(70, 'f');
	const std::string version(25, 'v');
	const std::string url(300, 'u');
	query({.version = version,
	       .buildtime = "1234567890123",
	       .url = url,
	       .file_name = file_name});
	EXPECT_EQ(std::string(update_manifest.file_name, 64), file_name.substr(0, 64));
	EXPECT_EQ(std::string(update_manifest.version, 20), version.substr(0, 20));
	EXPECT_STREQ(update_manifest.buildtime, "123456789");
	EXPECT_EQ(std::string(update_manifest.url, 256), url.substr(0, 256));
	EXPECT_STREQ(update_manifest.archive, "");

	query({.release_notes = std::string(600, 'r'), .force_update = "111", .archive = "222"});
	EXPECT_EQ(std::string(update_manifest.release_notes, 512), std::string(512, 'r'));
	EXPECT_STREQ(update_manifest.force_update, "11");
	EXPECT_STREQ(update_manifest.archive, "22");
}

TEST_F(ServerQuery, ValuesThatAreMissingKeepWhatAnEarlierAnswerSet)
{
	ASSERT_EQ(query({.version = "2.0",
			 .release_notes = "notes",
			 .force_update = "1",
			 .archive = "1",
			 .file_name = "image.bin"}),
		  1);
	ASSERT_EQ(query(answer("<?xml version=\"1.0\"?><u><buildtime>1</buildtime><url>u</url>"
			       "<version/><archive>1</archive><file_name></file_name></u>")),
		  1); // still forced
	EXPECT_STREQ(update_manifest.version, "2.0");
	EXPECT_STREQ(update_manifest.release_notes, "notes");
	EXPECT_STREQ(update_manifest.force_update, "1");
	EXPECT_STREQ(update_manifest.archive, "1");
	EXPECT_STREQ(update_manifest.file_name, "image.bin");
	EXPECT_STREQ(update_manifest.buildtime, "1");
	EXPECT_STREQ(update_manifest.url, "u");
}

TEST_F(ServerQuery, ShorterValueLeavesNothingOfALongerOne)
{
	query({.version = std::string(20, 'v'), .release_notes = std::string(512, 'r')});
	query({.version = "2", .release_notes = "r"});
	EXPECT_EQ(std::string(update_manifest.version, 20), "2" + std::string(19, '\0'));
	EXPECT_EQ(std::string(update_manifest.release_notes, 512), "r" + std::string(511, '\0'));
}

TEST_F(ServerQuery, OnlyAnArchiveNeedsAFileName)
{
	for (const char *archive : {"0", "11", "yes", " 1"}) {
		SCOPED_TRACE(archive);
		EXPECT_EQ(query({.archive = archive}), 1);
	}
	EXPECT_EQ(query({.file_name = "f"}), 1);
	EXPECT_EQ(query({.archive = "1"}), 1);
}

// The only look that anybody gets at this state: from a tool that the query itself runs.
TEST_F(ServerQuery, GathersTheFactsInAStateOfItsOwn)
{
	static volatile std::sig_atomic_t seen;
	seen = -1;
	struct sigaction before = {};
	struct sigaction action = {};
	action.sa_handler = [](int) {
		seen = static_cast<int>(update_context.state);
	};
	action.sa_flags = SA_RESTART;
	files.install_tool("/usr/sbin/qor_factory", "kill -USR1 " + std::to_string(getpid()));
	sigaction(SIGUSR1, &action, &before);
	query(Manifest{});
	sigaction(SIGUSR1, &before, nullptr);
	EXPECT_EQ(seen, static_cast<int>(UpdateState::NETWORK_GET));
}
