// SPDX-License-Identifier: ISC
// libubus for the tests in this folder: connections that close themselves, objects whose
// methods are lambdas, and a loop that cannot last for ever.
#pragma once

#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bus_fixture.h"
#include "bus_headers.h"

namespace bus_test
{

struct CloseContext {
	void operator()(ubus_context *context) const
	{
		ubus_free(context);
	}
};
using Context = std::unique_ptr<ubus_context, CloseContext>;

// A message with one string and one number, or what else a test puts in.
struct Arguments : blob_buf {
	Arguments() : blob_buf{}
	{
		blob_buf_init(this, 0);
	}
	explicit Arguments(const char *json) : Arguments()
	{
		blobmsg_add_json_from_string(this, json);
	}
	~Arguments()
	{
		blob_buf_free(this);
	}
	Arguments(const Arguments &) = delete;
	Arguments &operator=(const Arguments &) = delete;
};

inline std::string to_json(blob_attr *message)
{
	const std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json(message, true), free);

	return text ? text.get() : "(none)";
}

// An object with the methods `go` (arguments of several types) and `plain` (none).
struct Service {
	using Handler = std::function<int(ubus_request_data &, const std::string &, blob_attr *)>;

	ubus_object object{}; // first: the handler gets this address
	Handler on_call;

	explicit Service(const char *path, Handler handler = {}) : on_call(std::move(handler))
	{
		static const blobmsg_policy policy[] = {
			{"text", BLOBMSG_TYPE_STRING}, {"count", BLOBMSG_TYPE_INT32},
			{"flag", BLOBMSG_TYPE_BOOL},   {"table", BLOBMSG_TYPE_TABLE},
			{"list", BLOBMSG_TYPE_ARRAY},
		};
		static const ubus_method methods[] = {
			UBUS_METHOD("go", handle, policy),
			UBUS_METHOD_NOARG("plain", handle),
			{.name = "masked",
			 .handler = handle,
			 .mask = 1 << 1,
			 .tags = 0,
			 .policy = policy,
			 .n_policy = static_cast<int>(ARRAY_SIZE(policy))},
		};
		type_ = UBUS_OBJECT_TYPE(path, methods);
		object.name = path;
		object.type = &type_;
		object.methods = methods;
		object.n_methods = static_cast<int>(ARRAY_SIZE(methods));
	}
	Service(const Service &) = delete;
	Service &operator=(const Service &) = delete;

private:
	static int handle(ubus_context *, ubus_object *object, ubus_request_data *request,
			  const char *method, blob_attr *arguments)
	{
		auto &self = *reinterpret_cast<Service *>(object);

		return self.on_call ? self.on_call(*request, method, arguments) : 0;
	}

	ubus_object_type type_{};
};

// Collects events as "id json ".
struct Listener : ubus_event_handler {
	std::string heard;
	std::string last_word; // the event that ends the loop

	explicit Listener(std::string ends_with = "")
	    : ubus_event_handler{}, last_word(std::move(ends_with))
	{
		cb = [](ubus_context *, ubus_event_handler *handler, const char *id,
			blob_attr *data) {
			auto *self = static_cast<Listener *>(handler);

			self->heard += std::string(id) + " " + to_json(data) + " ";
			if (id == self->last_word)
				uloop_end();
		};
	}
};

// A call of `go` that the loop completes, and that then ends the loop.
struct AsyncCall : ubus_request {
	int result = -1;
	int completions = 0;
	bool was_watched = true; // the connection's socket, when the call ended

	AsyncCall(ubus_context *context, std::uint32_t object_id) : ubus_request{}
	{
		EXPECT_EQ(ubus_invoke_async(context, object_id, "go", nullptr, this), 0);
		complete_cb = [](ubus_request *request, int status) {
			auto *self = static_cast<AsyncCall *>(request);
			self->result = status;
			self->completions++;
			self->was_watched = request->ctx->sock.registered;
			uloop_end();
		};
		ubus_complete_request_async(context, this);
	}
};

class UloopBus : public Bus
{
protected:
	UloopBus()
	{
		uloop_init();
		// The loop would collect the children of router_test::Process as well.
		std::signal(SIGCHLD, SIG_DFL);
	}
	~UloopBus() override
	{
		uloop_done();
	}

	Context connect() const
	{
		Context context(ubus_connect(socket().c_str()));

		if (!context)
			throw std::runtime_error("not connected");
		ubus_add_uloop(context.get());
		return context;
	}

	// Until uloop_end; a failure when nobody calls that in time.
	static void run_loop()
	{
		uloop_timeout guard{};

		guard.cb = [](uloop_timeout *) {
			ADD_FAILURE() << "the loop did not end";
			uloop_end();
		};
		uloop_timeout_set(&guard, static_cast<int>(router_test::wait_limit().count()));
		uloop_run();
		uloop_timeout_cancel(&guard);
	}
};

} // namespace bus_test
