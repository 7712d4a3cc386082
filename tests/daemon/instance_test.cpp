// SPDX-License-Identifier: ISC
#include "daemon/instance.h"

#include <string>
#include <unistd.h>

#include "base/log.h"
#include "base/records.h"
#include "support/debug_fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

class Instance : public DebugFixture
{
protected:
	void pidof_says(const std::string &line)
	{
		files.install_recording_tool("/bin/pidof", "printf '" + line + "'");
	}

	const std::string own = std::to_string(getpid());
};

} // namespace

TEST_F(Instance, OwnProcessAloneMayStart)
{
	for (const std::string &line : {own + "\\n", own, own + " " + own + "\\n"}) {
		pidof_says(line);
		EXPECT_EQ(is_already_running("/usr/sbin/fwupdate"), 0) << line;
	}
	EXPECT_TRUE(syslog.lines().empty());
}

TEST_F(Instance, AnyOtherProcessOnTheLineStopsIt)
{
	for (const std::string &line :
	     {std::string("1\\n"), "1 " + own + "\\n", own + " 1\\n", own + " 1 " + own + "\\n",
	      "0" + own + "9\\n", std::string("\\n"), "x\\n" + own}) {
		pidof_says(line);
		syslog.clear();
		EXPECT_EQ(is_already_running("fwupdate"), 1) << line;
		EXPECT_EQ(syslog.texts(), std::vector<std::string>{"Service already running"});
	}
}

TEST_F(Instance, EmptyAnswerStopsItAndNamesTheCommand)
{
	pidof_says("");
	EXPECT_EQ(is_already_running("/usr/sbin/fwupdate"), 1);
	EXPECT_EQ(syslog.texts(),
		  (std::vector<std::string>{
			  "Error on reading pidof_fwupdate",
			  "Error on checking pids for 'pidof /usr/sbin/fwupdate'"}));
}

TEST_F(Instance, CommandIsCutTo63Characters)
{
	pidof_says(own);
	is_already_running(std::string(80, 'n').c_str());
	EXPECT_EQ(files.tool_calls("/bin/pidof").at(0).at(1), std::string(57, 'n'));
}

TEST_F(Instance, NoMoreThan63CharactersOfTheAnswerCount)
{
	const std::string blanks(63 - own.size(), ' ');
	pidof_says(own + blanks + "1\\n");
	EXPECT_EQ(is_already_running("fwupdate"), 0);
	pidof_says(own + blanks.substr(1) + "1\\n");
	EXPECT_EQ(is_already_running("fwupdate"), 1);
}
