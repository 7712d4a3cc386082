// SPDX-License-Identifier: ISC
#include <cstring>
#include <gmock/gmock.h>

#include "discovery/discovery_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class Facts : public DiscoveryFixture
{
protected:
	BusServices services;
};

class MissingFacts : public Facts
{
};

std::string board(const std::string &revision, const std::string &builddate)
{
	return R"({"board_name": "qor,model-x", "product_name": "Model-X", "release": {"revision": ")" +
	       revision + R"(", "builddate": ")" + builddate + R"("}})";
}

struct OutputCase {
	const char *what;
	std::string printed;
	std::string kept;
};

} // namespace

TEST_F(Facts, AreReadFromTheRoutersTools)
{
	files.set_manifest_url("http://192.0.2.1/other.xml");
	gather_device_facts();
	EXPECT_STREQ(device_facts.cpe_sn, "AB12345");
	EXPECT_STREQ(device_facts.cpe_version, "r1234");
	EXPECT_STREQ(device_facts.cpe_builddate, "171000000");
	EXPECT_STREQ(device_facts.cpe_wan_device, "wan");
	EXPECT_STREQ(device_facts.cpe_wan_if, "wan");
	EXPECT_STREQ(device_facts.cpe_wan_mac, "02:00:00:00:00:10");
	EXPECT_STREQ(device_facts.cpe_wan_ip, "192.0.2.10");
	EXPECT_STREQ(device_facts.cpe_update_xml_url, "http://192.0.2.1/other.xml");
	EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(Facts, GatheringLeavesBoardAndProductNameAlone)
{
	device_facts.cpe_model[0] = 'M';
	device_facts.cpe_product_name[0] = 'P';
	gather_device_facts();
	EXPECT_STREQ(device_facts.cpe_model, "M");
	EXPECT_STREQ(device_facts.cpe_product_name, "P");
}

TEST_F(Facts, SerialNumberIsTheFirstLineWithoutItsLineFeed)
{
	const std::string digits = "1234567890123456789012345678901234567890";
	const std::vector<OutputCase> cases = {
		{"a line", "AB12345\\n", "AB12345"},
		{"a carriage return stays", "AB12345\\r\\n", "AB12345\r"},
		{"only one line feed goes", "AB12345\\n\\n", "AB12345"},
		{"no line end", "AB12345", "AB12345"},
		{"two lines", "AB\\nCD\\n", "AB"},
		{"an empty first line", "\\nAB12345\\n", ""},
		{"blanks", " AB 12 \\n", " AB 12 "},
		{"characters of shell and printf", "$HOME`id`%%s%%n\\042\\047\\n",
		 "$HOME`id`%s%n\"'"},
		{"bytes above 127", "\\303\\251\\377\\n", "\303\251\377"},
		{"30 characters and a line feed", digits.substr(0, 30) + "\\n",
		 digits.substr(0, 30)},
		{"31 characters and a line feed", digits.substr(0, 31) + "\\n",
		 digits.substr(0, 31)},
		{"40 characters", digits + "\\n", digits.substr(0, 31)},
	};
	for (const OutputCase &each : cases) {
		SCOPED_TRACE(each.what);
		files.install_tool("/usr/sbin/qor_factory", "printf '" + each.printed + "'");
		gather_device_facts();
		EXPECT_EQ(device_facts.cpe_sn, each.kept);
	}
	EXPECT_FALSE(syslog.contains("cpe_sn"));
}

TEST_F(Facts, ManifestUrlIsAskedForQuietly)
{
	files.install_recording_tool("/sbin/uci", "printf 'http://a/\\r\\n\\n'");
	gather_device_facts();
	auto calls = files.tool_calls("/sbin/uci");
	ASSERT_EQ(calls.size(), 1u);
	calls[0].erase(calls[0].begin());
	EXPECT_THAT(calls[0], ElementsAre("-q", "get", "system.@system[0].fwupdate_xml_url"));
	EXPECT_STREQ(device_facts.cpe_update_xml_url, "http://a/\r");
}

TEST_F(Facts, ManifestUrlThatIsNotSetIsLoggedAndEmpty)
{
	gather_device_facts();
	EXPECT_STREQ(device_facts.cpe_update_xml_url, "");
	EXPECT_THAT(logged(), ElementsAre("Error on reading cpe_update_xml_url"));
}

TEST_F(Facts, ManifestUrlIsCutTo255Characters)
{
	const std::string url = "http://" + std::string(300, 'u');
	files.set_manifest_url(url);
	gather_device_facts();
	EXPECT_EQ(device_facts.cpe_update_xml_url, url.substr(0, 255));
}

TEST_F(Facts, OfTheReleaseAreCutToTheirFields)
{
	const std::string revision(70, 'r');
	const std::string date = "12345678901234567890";
	files.set_board(board(revision, date));
	gather_device_facts();
	EXPECT_EQ(device_facts.cpe_version, revision.substr(0, 63));
	EXPECT_EQ(device_facts.cpe_builddate, date.substr(0, 15));
}

TEST_F(Facts, BusValuesKeepAllButTheirLineEnds)
{
	const std::vector<OutputCase> cases = {
		{"line ends", R"("r1\r\n23\n")", "r123"},
		{"other characters", R"("r1 %s%n &=?#\"'$(id)`\u00e9")",
		 "r1 %s%n &=?#\"'$(id)`\303\251"},
		{"a number", "1234", "1234"},
	};
	for (const OutputCase &each : cases) {
		SCOPED_TRACE(each.what);
		files.set_board(R"({"release": {"revision": )" + each.printed + "}}");
		gather_device_facts();
		EXPECT_EQ(device_facts.cpe_version, each.kept);
	}
}

TEST_F(Facts, OutputThatGoesOnDoesNotHoldUpTheGathering)
{
	files.install_tool("/usr/sbin/qor_factory", "while echo AB12345; do :; done 2>/dev/null");
	gather_device_facts();
	EXPECT_STREQ(device_facts.cpe_sn, "AB12345");
}

TEST_F(Facts, AreReadAfreshEachTime)
{
	gather_device_facts();
	read_cpe_model();
	files.write("/etc/router/serial", "CD67890\n");
	files.set_board(R"({"board_name": "other", "product_name": "p", "release":
			{"revision": "r2", "builddate": "2"}})");
	gather_device_facts();
	EXPECT_STREQ(device_facts.cpe_sn, "CD67890");
	EXPECT_STREQ(device_facts.cpe_version, "r2");
	EXPECT_STREQ(device_facts.cpe_builddate, "2");
	EXPECT_STREQ(read_cpe_model(), "OTHER");
	EXPECT_STREQ(read_cpe_product_name(), "P");
}

TEST_F(Facts, BoardAndProductNameAreUpperCase)
{
	const std::vector<OutputCase> cases = {
		{"a board", "vendor,model-x", "VENDOR,MODEL-X"},
		{"all letters", "azbyAZ", "AZBYAZ"},
		{"beside the letters", "`{|}~@[^_09 .,", "`{|}~@[^_09 .,"},
		{"bytes above 127", "\\u00e9a\\u00ff", "\303\251A\303\277"},
		{"31 characters", std::string(31, 'm'), std::string(31, 'M')},
		{"40 characters", std::string(40, 'm'), std::string(31, 'M')},
		{"line ends", "a\\r\\nb\\n", "AB"},
	};
	for (const OutputCase &each : cases) {
		SCOPED_TRACE(each.what);
		files.set_board(R"({"board_name": "b)" + each.printed + R"(", "product_name": ")" +
				each.printed + "\"}");
		EXPECT_EQ(read_cpe_model(), ("B" + each.kept).substr(0, 31));
		EXPECT_EQ(read_cpe_product_name(), each.kept);
	}
	EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(Facts, CustomIdIsAlwaysEmpty)
{
	EXPECT_STREQ(device_customid(), "");
}

TEST_F(MissingFacts, FailuresOfBoardAndProductNameHaveTheirMessages)
{
	EXPECT_STREQ(read_cpe_model(), "QOR,MODEL-X");
	EXPECT_STREQ(read_cpe_product_name(), "MODEL-X");
	files.set_board("{}");
	EXPECT_STREQ(read_cpe_model(), "");
	EXPECT_STREQ(read_cpe_product_name(), "");
	EXPECT_THAT(logged(),
		    ElementsAre("Error on reading cpe_model", "Error on reading cpe_product_name"));
}

// What the shell says of a missing tool is of no interest here.
TEST_F(MissingFacts, FailureLeavesNothingOfAnEarlierValue)
{
	gather_device_facts();
	ASSERT_STREQ(device_facts.cpe_wan_ip, "192.0.2.10");
	for (const char *tool : {"qor_factory", "ubus", "ip", "uci"}) {
		files.remove(find_program(tool));
	}
	testing::internal::CaptureStderr();
	gather_device_facts();
	testing::internal::GetCapturedStderr();
	const DeviceFacts nothing = {};
	EXPECT_EQ(std::memcmp(&device_facts, &nothing, sizeof(nothing)), 0);
}

TEST_F(MissingFacts, ToolThatPrintsNothingHasFailedWhateverItsStatus)
{
	for (const char *body : {"exit 0", "exit 1", "echo AB12345 >&2", "printf ''"}) {
		SCOPED_TRACE(body);
		files.install_tool("/usr/sbin/qor_factory", body);
		syslog.clear();
		testing::internal::CaptureStderr();
		gather_device_facts();
		testing::internal::GetCapturedStderr();
		EXPECT_TRUE(syslog.contains("Error on reading cpe_sn"));
		EXPECT_STREQ(device_facts.cpe_sn, "");
	}
}

TEST_F(MissingFacts, BoardInformationWithoutAValueHasFailed)
{
	for (const char *text : {"{}", R"({"release": {}})", R"({"release": "r1"})",
				 R"({"release": {"revision": "", "builddate": "\r\n"}})"}) {
		SCOPED_TRACE(text);
		files.set_board(text);
		syslog.clear();
		gather_device_facts();
		EXPECT_TRUE(syslog.contains("Error on reading cpe_version"));
		EXPECT_TRUE(syslog.contains("Error on reading cpe_builddate"));
	}
}
