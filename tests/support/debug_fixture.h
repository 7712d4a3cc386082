// SPDX-License-Identifier: ISC
// The fixture of unit tests whose subject logs: the daemon's own log is on, as with --debug, and
// the shared record is empty before and after each test. For programs that hold the daemon's
// objects.
#pragma once

#include "base/log.h"
#include "base/records.h"
#include "support/fixture.h"

namespace router_test
{

class DebugFixture : public RouterFixture
{
protected:
	void SetUp() override
	{
		RouterFixture::SetUp();
		fwupdate::update_context = {};
		fwupdate::debug_mode = 1;
	}
	void TearDown() override
	{
		fwupdate::debug_mode = 0;
		fwupdate::update_context = {};
		RouterFixture::TearDown();
	}

	SyslogCatcher syslog;
};

} // namespace router_test
