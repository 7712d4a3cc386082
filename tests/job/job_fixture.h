// SPDX-License-Identifier: ISC
// What the tests of the job share: an event loop, and a bus connection whose other end the test
// has.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/bus.h"
#include "base/records.h"
#include "job_world.h"

namespace job_test
{

class JobFixture : public testing::Test
{
protected:
	void SetUp() override
	{
		uloop_init();
		int ends[2];
		ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends),
			  0);
		bus_.sock.fd = ends[0];
		bus_reader_ = ends[1];
		fwupdate::bus_connection = &bus_;
	}
	void TearDown() override
	{
		fwupdate::bus_connection = nullptr;
		close(bus_.sock.fd);
		close(bus_reader_);
		unlink(image_path);
		uloop_done();
	}

	fwupdate::UpdateJob &job_ = fwupdate::update_context.job;
	ubus_context bus_ = {};
	int bus_reader_ = -1;
};

} // namespace job_test
