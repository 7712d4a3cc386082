// SPDX-License-Identifier: ISC
#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <unistd.h>

#include "discovery/discovery_fixture.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace
{

// A fact that keeps the reader waiting for ever ends the test program instead.
class MissingFacts : public DiscoveryFixture
{
protected:
	static constexpr unsigned patience = 60; // seconds

	void SetUp() override
	{
		DiscoveryFixture::SetUp();
		alarm(patience);
		files.set_manifest_url("http://a/");
	}
	void TearDown() override
	{
		alarm(0);
		DiscoveryFixture::TearDown();
	}

	BusServices services;
};

std::string failure_of(const std::string &fact)
{
	return "Error on reading " + fact;
}

// What the shell says about a missing tool goes to the daemon's standard error, and is of no
// interest here.
void gather_quietly()
{
	testing::internal::CaptureStderr();
	gather_device_facts();
	testing::internal::GetCapturedStderr();
}

// Names of the facts that are empty, of those that a gathering reads.
std::vector<std::string> empty_facts()
{
	const DeviceFacts &facts = device_facts;
	const std::pair<const char *, const char *> all[] = {
		{"cpe_sn", facts.cpe_sn},
		{"cpe_version", facts.cpe_version},
		{"cpe_builddate", facts.cpe_builddate},
		{"cpe_wan_device", facts.cpe_wan_device},
		{"cpe_wan_if", facts.cpe_wan_if},
		{"cpe_wan_mac", facts.cpe_wan_mac},
		{"cpe_wan_ip", facts.cpe_wan_ip},
		{"cpe_update_xml_url", facts.cpe_update_xml_url},
	};
	std::vector<std::string> names;
	for (const auto &[name, value] : all) {
		if (*value == '\0') {
			names.emplace_back(name);
		}
	}
	return names;
}

struct ToolCase {
	const char *tool;
	std::vector<std::string> logged; // facts, in the order of their messages
	std::vector<std::string> silent; // facts that are empty without a message
};

const std::vector<ToolCase> tools = {
	{"qor_factory", {"cpe_sn"}, {}},
	{"ubus", {"cpe_version", "cpe_builddate", "cpe_wan_device"}, {"cpe_wan_mac"}},
	{"jsonfilter", {"cpe_version", "cpe_builddate", "cpe_wan_device"}, {"cpe_wan_mac"}},
	{"tr",
	 {"cpe_version", "cpe_builddate", "cpe_wan_device", "cpe_wan_if"},
	 {"cpe_wan_mac", "cpe_wan_ip"}},
	{"ip", {"cpe_wan_if"}, {"cpe_wan_ip"}},
	{"ifconfig", {"cpe_wan_mac", "cpe_wan_ip"}, {}},
	{"grep", {"cpe_wan_mac"}, {}},
	{"awk", {"cpe_wan_if", "cpe_wan_mac"}, {"cpe_wan_ip"}},
};

} // namespace

TEST_F(MissingFacts, ToolThatIsMissingCostsOnlyWhatItIsNeededFor)
{
	for (const ToolCase &each : tools) {
		SCOPED_TRACE(each.tool);
		RouterFiles changed;
		changed.install_tool("/sbin/uci", "echo http://a/"); // the real one needs awk
		changed.remove(find_program(each.tool));
		syslog.clear();
		gather_quietly();

		std::vector<std::string> failures;
		for (const std::string &fact : each.logged) {
			failures.push_back(failure_of(fact));
		}
		EXPECT_THAT(logged(), ElementsAreArray(failures));
		std::vector<std::string> empty = each.logged;
		empty.insert(empty.end(), each.silent.begin(), each.silent.end());
		EXPECT_THAT(empty_facts(), testing::UnorderedElementsAreArray(empty));
	}
}

TEST_F(MissingFacts, ManifestUrlNeedsUci)
{
	files.remove(find_program("uci"));
	gather_quietly();
	EXPECT_THAT(logged(), ElementsAre(failure_of("cpe_update_xml_url")));
	EXPECT_THAT(empty_facts(), ElementsAre("cpe_update_xml_url"));
}

TEST_F(MissingFacts, EachFailureHasItsMessageInTheOrderOfGathering)
{
	for (const char *tool : {"qor_factory", "ubus", "ifconfig", "uci"}) {
		files.remove(find_program(tool));
	}
	files.install_tool("/sbin/ip", "exit 1");
	gather_quietly();
	EXPECT_THAT(logged(),
		    ElementsAre("Error on reading cpe_sn", "Error on reading cpe_version",
				"Error on reading cpe_builddate", "Error on reading cpe_wan_device",
				"Error on reading cpe_wan_if",
				"Error on reading cpe_update_xml_url"));
	EXPECT_STREQ(update_context.message, "Error on reading cpe_update_xml_url\n");
}

TEST_F(MissingFacts, AddressesAreReadBeforeTheManifestUrl)
{
	files.remove(find_program("ifconfig"));
	files.remove(find_program("uci"));
	gather_quietly();
	EXPECT_THAT(logged(), ElementsAre(failure_of("cpe_wan_mac"), failure_of("cpe_wan_ip"),
					  failure_of("cpe_update_xml_url")));
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

TEST_F(MissingFacts, FailureLeavesNothingOfAnEarlierValue)
{
	gather_device_facts();
	ASSERT_THAT(empty_facts(), IsEmpty());
	for (const char *tool : {"qor_factory", "ubus", "ip", "uci"}) {
		files.remove(find_program(tool));
	}
	gather_quietly();
	EXPECT_EQ(empty_facts().size(), 8u);
	const DeviceFacts nothing = {};
	EXPECT_EQ(std::memcmp(&device_facts, &nothing, sizeof(nothing)), 0);
}

TEST_F(MissingFacts, ToolThatPrintsNothingHasFailedWhateverItsStatus)
{
	for (const char *body : {"exit 0", "exit 1", "echo AB12345 >&2", "printf ''"}) {
		SCOPED_TRACE(body);
		files.install_tool("/usr/sbin/qor_factory", body);
		syslog.clear();
		gather_quietly();
		EXPECT_THAT(logged(), ElementsAre(failure_of("cpe_sn")));
		EXPECT_STREQ(device_facts.cpe_sn, "");
	}
}

TEST_F(MissingFacts, ToolThatMayNotBeRunHasFailed)
{
	files.write("/usr/sbin/qor_factory", "#!/bin/sh\necho AB12345\n", 0644);
	gather_quietly();
	EXPECT_THAT(logged(), ElementsAre(failure_of("cpe_sn")));
}

TEST_F(MissingFacts, BoardInformationWithoutAValueHasFailed)
{
	for (const char *text : {"{}", R"({"release": {}})", R"({"release": "r1"})",
				 R"({"release": {"revision": "", "builddate": "\r\n"}})"}) {
		SCOPED_TRACE(text);
		files.set_board(text);
		syslog.clear();
		gather_device_facts();
		EXPECT_THAT(logged(),
			    ElementsAre(failure_of("cpe_version"), failure_of("cpe_builddate")));
	}
}

TEST_F(MissingFacts, RouterWithoutABusStillKnowsItsRoute)
{
	services.stop_routerd();
	services.stop_broker();
	gather_quietly();
	EXPECT_THAT(empty_facts(),
		    ElementsAre("cpe_version", "cpe_builddate", "cpe_wan_device", "cpe_wan_mac"));
	EXPECT_STREQ(device_facts.cpe_wan_ip, "192.0.2.10");
}

TEST_F(MissingFacts, StaleInterruptionDoesNotTrapTheReader)
{
	files.install_tool("/usr/sbin/qor_factory", "exit 0");
	files.set_board("{}");
	errno = EINTR;
	gather_device_facts();
	EXPECT_THAT(logged(), ElementsAre(failure_of("cpe_sn"), failure_of("cpe_version"),
					  failure_of("cpe_builddate")));
	errno = EINTR;
	EXPECT_STREQ(read_cpe_model(), "");
	errno = EINTR;
	EXPECT_STREQ(read_cpe_product_name(), "");
}

TEST_F(MissingFacts, NothingIsLoggedWithoutDebug)
{
	debug_mode = 0;
	files.set_board("{}");
	gather_device_facts();
	read_cpe_model();
	EXPECT_THAT(logged(), IsEmpty());
	EXPECT_STREQ(update_context.message, "");
}
