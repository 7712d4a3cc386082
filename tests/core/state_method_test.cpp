// SPDX-License-Identifier: ISC
#include "core/state_method.h"

#include <gtest/gtest.h>

using namespace fwupdate;

TEST(StateMethod, EachStateHasItsName)
{
	const char *const names[] = {
		"NONE",		"NETWORK_GET", "NETWORK_CHECK",	 "XML_CONNECT",
		"XML_GET",	"XML_PARSE",   "XML_DONE",	 "FIRMWARE_CONNECT",
		"FIRMWARE_GET", "WAIT_DELAY",  "FIRMWARE_CHECK", "FIRMWARE_UPDATE",
	};
	unsigned value = 0;
	for (const char *name : names) {
		EXPECT_STREQ(update_state_name(static_cast<UpdateState>(value++)), name);
	}
}

TEST(StateMethod, ValueBeyondTheStatesIsUnknown)
{
	EXPECT_STREQ(update_state_name(static_cast<UpdateState>(12)), "UNKNOWN");
	EXPECT_STREQ(update_state_name(static_cast<UpdateState>(0xffffffff)), "UNKNOWN");
}
