// SPDX-License-Identifier: ISC
#include <gmock/gmock.h>

#include "discovery/discovery_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr const char *ifconfig = "/sbin/ifconfig";
constexpr const char *ip = "/sbin/ip";

// `ubus` is played by a script: the device of the WAN interface is all that these tests need.
struct TextCase {
	const char *what;
	std::string printed;
	std::string kept; // empty: the fact could not be read
};

class WanFacts : public DiscoveryFixture
{
protected:
	void SetUp() override
	{
		DiscoveryFixture::SetUp();
		set_device("wan");
	}
	void set_device(const std::string &name)
	{
		files.write("/etc/router/answer", R"({"device": ")" + name + "\"}");
		files.install_tool("/usr/bin/ubus", "cat /etc/router/answer");
	}
	void set_route(const std::string &lines)
	{
		files.write("/etc/router/route", lines);
		files.install_tool(ip, "cat /etc/router/route");
	}
	void set_ifconfig(const std::string &lines)
	{
		files.write("/etc/router/ifconfig", lines);
		files.install_tool(ifconfig, "cat /etc/router/ifconfig");
	}
	// Gathers the facts from each text that ifconfig prints; `field` then holds what is kept of
	// it, and `failure` was logged once if that is nothing.
	void expect_kept_of_ifconfig(const char *field, const char *failure,
				     const std::vector<TextCase> &cases)
	{
		for (const TextCase &each : cases) {
			SCOPED_TRACE(each.what);
			set_ifconfig(each.printed);
			syslog.clear();
			gather_device_facts();
			EXPECT_EQ(field, each.kept);
			EXPECT_EQ(syslog.count(failure), each.kept.empty() ? 1u : 0u);
		}
	}
	// Messages about the WAN; those about other facts are not of interest.
	std::vector<std::string> wan_messages() const
	{
		std::vector<std::string> texts = logged();
		std::erase_if(texts, [](const std::string &text) {
			return text.find("cpe_wan") == std::string::npos;
		});
		return texts;
	}
	// The interfaces that ifconfig was asked for.
	std::vector<std::string> asked() const
	{
		std::vector<std::string> names;
		for (const auto &words : files.tool_calls(ifconfig)) {
			names.push_back(words.size() == 2 ? words[1] : "wrong call");
		}
		return names;
	}
};

const std::string wan_of_busybox =
	"wan       Link encap:Ethernet  HWaddr 02:00:00:00:00:10  \n"
	"          inet addr:192.0.2.10  Bcast:0.0.0.0  Mask:255.255.255.0\n";

} // namespace

TEST_F(WanFacts, MacComesFromTheWanDeviceAndIpFromTheDefaultRoute)
{
	set_device("eth9");
	set_route("default via 10.0.0.1 dev ppp7 \n");
	files.install_recording_tool(
		ifconfig,
		"[ $1 = eth9 ] && echo 'eth9 Link encap:Ethernet  HWaddr 0A:0B:0C:0D:0E:0F'\n"
		"[ $1 = ppp7 ] && echo ' inet addr:10.0.0.77  P-t-P:10.0.0.1'\n");
	gather_device_facts();
	EXPECT_THAT(asked(), ElementsAre("eth9", "ppp7"));
	EXPECT_STREQ(device_facts.cpe_wan_mac, "0A:0B:0C:0D:0E:0F");
	EXPECT_STREQ(device_facts.cpe_wan_ip, "10.0.0.77");
	EXPECT_THAT(wan_messages(), IsEmpty());
}

TEST_F(WanFacts, WithoutWanDeviceNobodyLooksForTheMac)
{
	files.install_recording_tool(ifconfig, "cat /etc/router/ifconfig");
	files.write("/etc/router/ifconfig", wan_of_busybox);
	for (const char *answer : {"{}", R"({"device": ""})"}) {
		SCOPED_TRACE(answer);
		files.write("/etc/router/answer", answer);
		files.write("/var/tool-calls/_sbin_ifconfig", "");
		syslog.clear();
		gather_device_facts();
		EXPECT_THAT(asked(), ElementsAre("wan"));
		EXPECT_STREQ(device_facts.cpe_wan_mac, "");
		EXPECT_STREQ(device_facts.cpe_wan_ip, "192.0.2.10");
		EXPECT_THAT(wan_messages(), ElementsAre("Error on reading cpe_wan_device"));
	}
}

TEST_F(WanFacts, WithoutDefaultRouteNobodyLooksForTheAddress)
{
	set_route("192.0.2.0/24 dev wan scope link  src 192.0.2.10 \n");
	files.install_recording_tool(ifconfig, "cat /etc/router/ifconfig");
	files.write("/etc/router/ifconfig", wan_of_busybox);
	gather_device_facts();
	EXPECT_THAT(asked(), ElementsAre("wan"));
	EXPECT_STREQ(device_facts.cpe_wan_mac, "02:00:00:00:00:10");
	EXPECT_STREQ(device_facts.cpe_wan_ip, "");
	EXPECT_THAT(wan_messages(), ElementsAre("Error on reading cpe_wan_if"));
}

TEST_F(WanFacts, MacAndAddressGoWithTheirSource)
{
	gather_device_facts();
	ASSERT_STREQ(device_facts.cpe_wan_mac, "02:00:00:00:00:10");
	ASSERT_STREQ(device_facts.cpe_wan_ip, "192.0.2.10");
	set_route("");
	files.write("/etc/router/answer", "{}");
	gather_device_facts();
	EXPECT_STREQ(device_facts.cpe_wan_mac, "");
	EXPECT_STREQ(device_facts.cpe_wan_ip, "");
}

TEST_F(WanFacts, InterfaceIsTheFifthWordOfTheDefaultRoute)
{
	const std::vector<TextCase> cases = {
		{"a gateway", "default via 192.0.2.254 dev wan  metric 5\n", "wan"},
		{"other routes", "10.0.0.0/8 dev lan\ndefault via 192.0.2.254 dev wan\n", "wan"},
		{"two default routes", "default via 1.1.1.1 dev wan\ndefault via 2.2.2.2 dev w2\n",
		 "wanw2"},
		{"no gateway", "default dev wan scope link\n", "link"},
		{"no fifth word", "default dev wan\n", ""},
		{"16 characters", "default via 1.1.1.1 dev abcdefghijklmnop\n", "abcdefghijklmno"},
		{"nothing", "", ""},
	};
	set_ifconfig(wan_of_busybox);
	for (const TextCase &each : cases) {
		SCOPED_TRACE(each.what);
		set_route(each.printed);
		syslog.clear();
		gather_device_facts();
		EXPECT_EQ(device_facts.cpe_wan_if, each.kept);
		EXPECT_EQ(syslog.contains("cpe_wan_if"), each.kept.empty());
	}
}

TEST_F(WanFacts, MacIsTheFifthWordOfTheLineWithTheHardwareAddress)
{
	const std::vector<TextCase> cases = {
		{"BusyBox", wan_of_busybox, "02:00:00:00:00:10"},
		{"longer than a MAC", "w Link encap:UNSPEC  HWaddr 00-11-22-33-44-55-66-77\n",
		 "00-11-22-33-44-55"},
		{"no fifth word", "w Link encap:Ethernet HWaddr\n", ""},
		{"another format", "wan: flags=4163\n        ether 02:00:00:00:00:10\n", ""},
		{"another case", "w Link encap:Ethernet  hwaddr 02:00:00:00:00:10\n", ""},
		{"no hardware address", "lo        Link encap:Local Loopback  \n", ""},
		{"nothing", "", ""},
	};
	expect_kept_of_ifconfig(device_facts.cpe_wan_mac, "Error on reading cpe_wan_mac", cases);
}

TEST_F(WanFacts, AddressIsTheSecondWordOfTheLineWithTheAddress)
{
	const std::vector<TextCase> cases = {
		{"BusyBox", wan_of_busybox, "192.0.2.10"},
		{"the longest", "  inet addr:255.255.255.255  Mask:0\n", "255.255.255.255"},
		{"two addresses", "  inet addr:10.0.0.1\n  inet addr:10.0.0.2\n",
		 "10.0.0.110.0.0."},
		{"another format", "        inet 192.0.2.10  netmask 255.255.255.0\n", ""},
		{"only IPv6", "          inet6 addr: fe80::1/64 Scope:Link\n", ""},
		{"nothing", "", ""},
	};
	expect_kept_of_ifconfig(device_facts.cpe_wan_ip, "Error on reading cpe_wan_ip", cases);
}

TEST_F(WanFacts, NamesOfFullLengthReachTheCommandWhole)
{
	const std::string name = "abcdefghijklmno";
	set_device(name + "pqr");
	set_route("default via 192.0.2.254 dev " + name + "pqr\n");
	files.install_recording_tool(ifconfig, "cat /etc/router/ifconfig");
	files.write("/etc/router/ifconfig", wan_of_busybox);
	gather_device_facts();
	EXPECT_EQ(device_facts.cpe_wan_device, name);
	EXPECT_THAT(asked(), ElementsAre(name, name));
	EXPECT_STREQ(device_facts.cpe_wan_mac, "02:00:00:00:00:10");
	EXPECT_STREQ(device_facts.cpe_wan_ip, "192.0.2.10");
}
