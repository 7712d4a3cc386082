// SPDX-License-Identifier: ISC
#include "base/log.h"

#include <string>
#include <syslog.h>
#include <unistd.h>

#include "base/records.h"
#include "support/debug_fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

class Log : public DebugFixture
{
};

} // namespace

TEST_F(Log, SaysNothingWithoutDebug)
{
	debug_mode = 0;
	std::snprintf(update_context.message, sizeof(update_context.message), "kept");
	log_message("Unseen %d\n", 1);
	EXPECT_TRUE(syslog.lines().empty());
	EXPECT_STREQ(update_context.message, "kept");
}

TEST_F(Log, SendsUserInfoWithIdentAndProcessId)
{
	log_message("Error on reading %s\n", "cpe_sn");
	ASSERT_EQ(syslog.lines().size(), 1u);
	const LogLine line = syslog.lines()[0];
	EXPECT_EQ(line.priority, LOG_USER | LOG_INFO);
	EXPECT_EQ(line.ident, "fwupdate");
	EXPECT_EQ(line.pid, getpid());
	EXPECT_EQ(line.text, "Error on reading cpe_sn");
}

TEST_F(Log, LastTextIsKeptWithItsLineEnd)
{
	log_message("first\n");
	log_message("second [%d]", -9);
	EXPECT_STREQ(update_context.message, "second [-9]");
	log_message("third\n");
	EXPECT_STREQ(update_context.message, "third\n");
}

TEST_F(Log, TextIsNotTakenForAFormat)
{
	log_message("%s", "100%s %n done\n");
	EXPECT_EQ(syslog.lines().at(0).text, "100%s %n done");
}

TEST_F(Log, KeptTextStopsAt255CharactersAndLoggedTextAt511)
{
	update_context.result = 77; // stands right behind the kept text
	log_message("%s", std::string(600, 'x').c_str());
	EXPECT_EQ(update_context.message, std::string(255, 'x'));
	EXPECT_EQ(update_context.result, 77);
	EXPECT_EQ(syslog.lines().at(0).text, std::string(511, 'x'));
}

TEST_F(Log, NoDescriptorStaysOpen)
{
	const auto before = open_descriptors(getpid());
	for (int i = 0; i < 5; i++) {
		log_message("line\n");
	}
	EXPECT_EQ(open_descriptors(getpid()), before);
}
