// SPDX-License-Identifier: ISC
#include "base/bus.h"

#include "base/text.h"

namespace fwupdate
{

ubus_context *bus_connection;
std::uint32_t bus_generation;
blob_buf reply_buffer;

void begin_reply()
{
	blob_buf_init(&reply_buffer, 0);
}

void add_text(const char *name, const char *text)
{
	blobmsg_add_string(&reply_buffer, name, text);
}

void add_number(const char *name, int number)
{
	char text[NUMBER_TEXT_SIZE];
	format_text(text, sizeof(text), "%d", number);
	add_text(name, text);
}

int send_reply(ubus_request_data *request)
{
	return ubus_send_reply(bus_connection, request, reply_buffer.head);
}

void send_event(const char *name)
{
	ubus_send_event(bus_connection, name, reply_buffer.head);
}

} // namespace fwupdate
