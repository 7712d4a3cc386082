// SPDX-License-Identifier: ISC
// Calls a method once and prints the seconds until its answer, without the cost of starting a
// command for it.
//
//	call_time OBJECT METHOD [NAME TEXT]...
#include <cstdint>
#include <cstdio>

#include "clock.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <libubus.h>
}

namespace
{

constexpr int LONGEST_WAIT = 120000; // milliseconds

} // namespace

int main(int argc, char **argv)
{
	if (argc < 3 || argc % 2 == 0) {
		std::fputs("Usage: call_time OBJECT METHOD [NAME TEXT]...\n", stderr);
		return 2;
	}
	static blob_buf arguments;
	blob_buf_init(&arguments, 0);
	for (int i = 3; i < argc; i += 2) {
		blobmsg_add_string(&arguments, argv[i], argv[i + 1]);
	}
	ubus_context *bus = ubus_connect(nullptr);
	std::uint32_t id = 0;
	if (bus == nullptr || ubus_lookup_id(bus, argv[1], &id) != 0) {
		std::fprintf(stderr, "call_time: '%s' is not on the bus\n", argv[1]);
		return 1;
	}
	const double started = seconds_now();
	const int result =
		ubus_invoke(bus, id, argv[2], arguments.head, nullptr, nullptr, LONGEST_WAIT);
	const double took = seconds_now() - started;
	ubus_free(bus);
	if (result != 0) {
		std::fprintf(stderr, "call_time: %s\n", ubus_strerror(result));
		return 1;
	}
	std::printf("%.6f\n", took);
	return 0;
}
