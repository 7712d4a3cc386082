// SPDX-License-Identifier: ISC
// Starts a program, measures the time until its object is on the bus, ends the program and waits
// until the object is gone. Prints the milliseconds.
//
//	start_time OBJECT PROGRAM [ARG...]
#include <csignal>
#include <cstdio>
#include <cstring>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "clock.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

extern char **environ;

namespace
{

constexpr int LONGEST_WAIT = 20000; // milliseconds

const char *wanted;
bool is_there;

// The broker announces every object: {"id": number, "path": text}.
void on_event(ubus_context *, ubus_event_handler *, const char *event, blob_attr *message)
{
	static const blobmsg_policy policy[] = {{"path", BLOBMSG_TYPE_STRING}};
	blob_attr *path = nullptr;
	blobmsg_parse(policy, 1, &path, blob_data(message),
		      static_cast<unsigned int>(blob_len(message)));
	if (path == nullptr || std::strcmp(blobmsg_get_string(path), wanted) != 0) {
		return;
	}
	is_there = std::strcmp(event, "ubus.object.add") == 0;
	uloop_end();
}

void on_time_out(uloop_timeout *)
{
	uloop_end();
}

// Runs the loop until the object has come or gone.
bool await_object(bool there)
{
	uloop_timeout limit = {};
	limit.cb = on_time_out;
	uloop_timeout_set(&limit, LONGEST_WAIT);
	uloop_cancelled = false;
	uloop_run();
	uloop_timeout_cancel(&limit);
	return is_there == there;
}

} // namespace

int main(int argc, char **argv)
{
	if (argc < 3) {
		std::fputs("Usage: start_time OBJECT PROGRAM [ARG...]\n", stderr);
		return 2;
	}
	wanted = argv[1];
	uloop_init();
	ubus_context *bus = ubus_connect(nullptr);
	ubus_event_handler handler = {};
	handler.cb = on_event;
	if (bus == nullptr || ubus_register_event_handler(bus, &handler, "ubus.object.*") != 0) {
		std::fputs("start_time: no bus\n", stderr);
		return 1;
	}
	ubus_add_uloop(bus);

	const double started = 1000 * seconds_now();
	pid_t child = 0;
	if (posix_spawn(&child, argv[2], nullptr, nullptr, argv + 2, environ) != 0) {
		std::fprintf(stderr, "start_time: %s cannot be started\n", argv[2]);
		return 1;
	}
	const bool came = await_object(true);
	const double took = 1000 * seconds_now() - started;
	// Its object is there a moment before its loop runs, and a SIGTERM in between is lost.
	kill(child, SIGKILL);
	const bool went = !came || await_object(false);
	waitpid(child, nullptr, 0);
	if (!came || !went) {
		std::fprintf(stderr, "start_time: '%s' did not %s\n", wanted, came ? "go" : "come");
		return 1;
	}
	std::printf("%.3f\n", took);
	return 0;
}
