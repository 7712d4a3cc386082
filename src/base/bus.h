// SPDX-License-Identifier: ISC
//
// The daemon's connection to the bus, the one buffer in which every reply and
// event is built, and the parsing of a request's arguments. Knows no method.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/bus_and_loop.h"

namespace fwupdate
{

// Set once by start-up; never null while a handler or callback runs. The library keeps
// the same record when it connects again.
extern ubus_context *bus_connection;

// How often the daemon has tried to come back to the bus. A deferred request
// belongs to the connection that it came over: on a later one its caller's number may be
// somebody else's.
extern std::uint32_t bus_generation;

// Shared by all replies and events: its content is valid until the next
// begin_reply(). Never freed, so that its memory is reused.
extern blob_buf reply_buffer;

// Empties the reply buffer for a new message.
void begin_reply();

// Appends a string field, terminator included.
void add_text(const char *name, const char *text);

// Appends a string field with the decimal text of `number`.
void add_number(const char *name, int number);

// Sends what the buffer holds as the answer to `request`, live or deferred.
// Nobody could act on a failure: it is returned and may be ignored.
int send_reply(ubus_request_data *request);

// Sends what the buffer holds as the event `name` to everybody who listens.
void send_event(const char *name);

// Finds the arguments that `policy` names in `message` (null when the caller
// sent none). values[i] points into the message, or is null where an argument is
// absent or of another type.
template<std::size_t COUNT>
void parse_arguments(const blobmsg_policy (&policy)[COUNT], blob_attr *(&values)[COUNT],
		     blob_attr *message)
{
	for (blob_attr *&value : values) {
		value = nullptr;
	}
	if (message != nullptr) {
		blobmsg_parse(policy, static_cast<int>(COUNT), values, blob_data(message),
			      static_cast<unsigned int>(blob_len(message)));
	}
}

// The text of a string argument; null when it is absent.
inline const char *text_or_null(blob_attr *value)
{
	return value != nullptr ? blobmsg_get_string(value) : nullptr;
}

} // namespace fwupdate
