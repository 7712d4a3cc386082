// SPDX-License-Identifier: ISC
// The subcommands that wait for what happens on the bus.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

#include "ubus_commands.h"

namespace ubus_command
{

namespace
{

// The loop, run for one subcommand until it has what it wants.
class Loop
{
public:
	explicit Loop(ubus_context &bus) : bus_(bus)
	{
		uloop_init();
		status = UBUS_STATUS_OK;
		bus.connection_lost = on_lost;
		ubus_add_uloop(&bus);
	}
	~Loop()
	{
		uloop_timeout_cancel(&timer_);
		uloop_fd_delete(&bus_.sock);
		uloop_done();
	}
	Loop(const Loop &) = delete;
	Loop &operator=(const Loop &) = delete;

	// Returns `status_at_timeout` when the time is over; no limit when none was asked for.
	int run(const Options &options, int status_at_timeout)
	{
		at_timeout = status_at_timeout;
		timer_.cb = on_timeout;
		if (options.timeout && options.timeout->count() > 0) {
			const std::chrono::milliseconds limit = *options.timeout;
			uloop_timeout_set(&timer_, static_cast<int>(limit.count()));
		}
		uloop_run();
		return status;
	}

private:
	static void on_timeout(uloop_timeout *)
	{
		status = at_timeout;
		uloop_end();
	}
	static void on_lost(ubus_context *)
	{
		status = UBUS_STATUS_CONNECTION_FAILED;
		uloop_end();
	}

	// There is one loop per process, and its callbacks carry nothing.
	static inline int status = UBUS_STATUS_OK;
	static inline int at_timeout = UBUS_STATUS_OK;
	ubus_context &bus_;
	uloop_timeout timer_{};
};

void print_event(ubus_context *, ubus_event_handler *, const char *id, blob_attr *data)
{
	const std::unique_ptr<char, decltype(&std::free)> json(blobmsg_format_json(data, true),
							       std::free);

	if (json)
		std::printf("{ \"%s\": %s }\n", id, json.get());
	std::fflush(stdout); // somebody may wait for this line
}

struct AwaitedObjects {
	ubus_event_handler handler; // first: the library's callback gets this address
	std::set<std::string, std::less<>> missing;
};

void on_object_added(ubus_context *, ubus_event_handler *handler, const char *, blob_attr *data)
{
	const blobmsg_policy policy{"path", BLOBMSG_TYPE_STRING};
	auto &awaited = *reinterpret_cast<AwaitedObjects *>(handler);
	blob_attr *path = nullptr;

	blobmsg_parse(&policy, 1, &path, blob_data(data),
		      static_cast<unsigned int>(blob_len(data)));
	if (path)
		awaited.missing.erase(blobmsg_get_string(path));
	if (awaited.missing.empty())
		uloop_end();
}

} // namespace

int listen(ubus_context &bus, const Options &options, Arguments arguments)
{
	char everything[] = "*";
	char *const one_word[] = {everything};
	ubus_event_handler handler{};
	Loop loop(bus);

	handler.cb = print_event;
	for (const char *pattern : arguments.empty() ? Arguments(one_word) : arguments) {
		const int status = ubus_register_event_handler(&bus, &handler, pattern);
		if (status)
			return status;
	}
	return loop.run(options, UBUS_STATUS_OK);
}

int wait_for(ubus_context &bus, const Options &options, Arguments arguments)
{
	if (arguments.empty())
		return wrong_usage;
	AwaitedObjects awaited{{}, {arguments.begin(), arguments.end()}};
	Loop loop(bus);

	awaited.handler.cb = on_object_added;
	// Registered first: what appears after the look is told by an event.
	const int status = ubus_register_event_handler(&bus, &awaited.handler, "ubus.object.add");
	if (status)
		return status;
	std::erase_if(awaited.missing, [&bus](const std::string &path) {
		uint32_t id = 0;
		return ubus_lookup_id(&bus, path.c_str(), &id) == UBUS_STATUS_OK;
	});
	if (awaited.missing.empty())
		return UBUS_STATUS_OK;
	return loop.run(options, UBUS_STATUS_TIMEOUT);
}

} // namespace ubus_command
