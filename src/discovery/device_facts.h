// SPDX-License-Identifier: ISC
//
// Who this router is: texts read from the router's own tools, afresh each time
// they are needed. The server query asks for all of them, the image check for the
// product name. A fact that cannot be read is logged and left empty.
#pragma once

namespace fwupdate
{

// Every field is a terminated text, cut to its size without notice.
struct DeviceFacts {
	char cpe_sn[32];	      // serial number, from the factory data
	char cpe_version[64];	      // firmware revision
	char cpe_builddate[16];	      // firmware build date, a decimal number
	char cpe_wan_device[16];      // network device of the WAN interface
	char cpe_wan_if[16];	      // interface of the default route
	char cpe_wan_mac[18];	      // of cpe_wan_device, in colon form
	char cpe_wan_ip[16];	      // of cpe_wan_if, dotted
	char cpe_update_xml_url[256]; // manifest URL set in uci, or empty
	char cpe_model[32];	      // board name, upper case
	char cpe_product_name[32];    // product name, upper case
};

extern DeviceFacts device_facts;

// Reads the first eight facts, in their order. MAC and IP address come from two
// different sources on purpose, and are not looked for when their source is empty.
void gather_device_facts();

// Read the one fact and return its text, which device_facts owns; empty when it
// could not be read.
const char *read_cpe_model();
const char *read_cpe_product_name();

// The custom ID that the server query carries: always empty.
const char *device_customid();

} // namespace fwupdate
