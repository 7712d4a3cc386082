// SPDX-License-Identifier: ISC
// One connection to the broker, on libubus, without an event loop. Used by bus.cpp and
// bus_events.cpp only.
#pragma once

#include <memory>

#include "support/bus_headers.h"
#include "support/fields.h"
#include "support/wait.h"

namespace router_test
{

class MessageBuffer
{
public:
	explicit MessageBuffer(const Fields &fields)
	{
		blob_buf_init(&buffer_, 0);
		append_fields(&buffer_, fields);
	}
	~MessageBuffer()
	{
		blob_buf_free(&buffer_);
	}
	MessageBuffer(const MessageBuffer &) = delete;
	MessageBuffer &operator=(const MessageBuffer &) = delete;
	blob_attr *head()
	{
		return buffer_.head;
	}

private:
	blob_buf buffer_ = {};
};

struct FreeContext {
	void operator()(ubus_context *context) const
	{
		ubus_free(context);
	}
};
using Context = std::unique_ptr<ubus_context, FreeContext>;

// Empty when no broker listens.
Context connect_to_broker();
// Throws std::runtime_error when no broker listens.
Context connect_or_throw();

// Lets the library take what has arrived. False when nothing came in time.
bool take_messages(ubus_context *context, const Deadline &deadline);

} // namespace router_test
