// SPDX-License-Identifier: ISC
#include "discovery/device_facts.h"

#include <cstddef>
#include <cstring>

#include "base/shell.h"
#include "base/text.h"

namespace fwupdate
{

namespace
{

constexpr std::size_t PROBE_COMMAND_SIZE = 128;

template<std::size_t SIZE> void probe(const char *command, char (&field)[SIZE], const char *failure)
{
	run_probe(command, field, SIZE, failure);
}

void read_wan_mac()
{
	DeviceFacts &facts = device_facts;
	char command[PROBE_COMMAND_SIZE];
	std::memset(facts.cpe_wan_mac, 0, sizeof(facts.cpe_wan_mac));
	if (facts.cpe_wan_device[0] == '\0') {
		return;
	}
	format_text(command, sizeof(command),
		    "ifconfig %s | grep HWaddr | awk ' { print $5 } ' | tr -d '\r\n'",
		    facts.cpe_wan_device);
	probe(command, facts.cpe_wan_mac, "Error on reading cpe_wan_mac\n");
}

void read_wan_ip()
{
	DeviceFacts &facts = device_facts;
	char command[PROBE_COMMAND_SIZE];
	std::memset(facts.cpe_wan_ip, 0, sizeof(facts.cpe_wan_ip));
	if (facts.cpe_wan_if[0] == '\0') {
		return;
	}
	format_text(
		command, sizeof(command),
		"ifconfig %s | awk '/inet addr:/ { sub(\"addr:\", \"\", $2); print $2 }' | tr -d '\r\n'",
		facts.cpe_wan_if);
	probe(command, facts.cpe_wan_ip, "Error on reading cpe_wan_ip\n");
}

} // namespace

DeviceFacts device_facts;

void gather_device_facts()
{
	DeviceFacts &facts = device_facts;
	probe("qor_factory r sn", facts.cpe_sn, "Error on reading cpe_sn\n");
	strip_line_feed(facts.cpe_sn);
	probe("ubus call system board | jsonfilter -e '@[\"release\"][\"revision\"]' | tr -d '\r\n'",
	      facts.cpe_version, "Error on reading cpe_version\n");
	probe("ubus call system board | jsonfilter -e '@[\"release\"][\"builddate\"]' | tr -d '\r\n'",
	      facts.cpe_builddate, "Error on reading cpe_builddate\n");
	probe("ubus call network.interface.wan status | jsonfilter -e '@.device' | tr -d '\r\n'",
	      facts.cpe_wan_device, "Error on reading cpe_wan_device\n");
	probe("ip route show default | awk '/default/ {print $5}' | tr -d '\r\n'", facts.cpe_wan_if,
	      "Error on reading cpe_wan_if\n");
	read_wan_mac();
	read_wan_ip();
	probe("uci -q get system.@system[0].fwupdate_xml_url", facts.cpe_update_xml_url,
	      "Error on reading cpe_update_xml_url\n");
	strip_line_feed(facts.cpe_update_xml_url);
}

const char *read_cpe_model()
{
	probe("ubus call system board | jsonfilter -e '@[\"board_name\"]' | tr -d '\r\n'",
	      device_facts.cpe_model, "Error on reading cpe_model\n");
	upper_case(device_facts.cpe_model);
	return device_facts.cpe_model;
}

const char *read_cpe_product_name()
{
	probe("ubus call system board | jsonfilter -e '@[\"product_name\"]' | tr -d '\r\n'",
	      device_facts.cpe_product_name, "Error on reading cpe_product_name\n");
	upper_case(device_facts.cpe_product_name);
	return device_facts.cpe_product_name;
}

const char *device_customid()
{
	return "";
}

} // namespace fwupdate
