// SPDX-License-Identifier: ISC
// What the tests of src/discovery share: the daemon's static records set back to their state at
// start, --debug switched on, and the log. No bus and no server: who needs one has a member.
#pragma once

#include <string>
#include <vector>

#include "base/log.h"
#include "base/records.h"
#include "discovery/device_facts.h"
#include "discovery/manifest.h"
#include "support/fixture.h"

using namespace fwupdate;
using namespace router_test;

class DiscoveryFixture : public RouterFixture
{
protected:
	void SetUp() override
	{
		RouterFixture::SetUp();
		set_back();
		debug_mode = 1;
	}
	void TearDown() override
	{
		debug_mode = 0;
		set_back();
		RouterFixture::TearDown();
	}

	// What was logged.
	std::vector<std::string> logged() const
	{
		return syslog.texts();
	}

	SyslogCatcher syslog;

private:
	static void set_back()
	{
		mxmlDelete(manifest_buffer.document);
		manifest_buffer = {};
		update_manifest = {};
		update_context = {};
		device_facts = {};
	}
};
