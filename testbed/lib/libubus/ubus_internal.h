// SPDX-License-Identifier: ISC
// What the library's own files share: messages as they travel, and who handles which.
// No program includes it.
#pragma once

#include "libubus.h"

#define UBUS_MSG_MAX_LEN (1u << 20) // the attribute of one message, its head included

// A message that has come in, or as much of it as has.
struct ubus_inbound {
	struct list_head list; // in ubus_context.pending
	size_t received;       // bytes of `wire` that are filled
	uint32_t wire[];       // head and attribute; room for what is to come
};

enum ubus_receive_result {
	UBUS_RECEIVED,
	UBUS_NOTHING_YET,
	UBUS_CLOSED // the broker left, or sent what is no message
};

// Sends one message whole, waiting for room in the socket. False when the connection is
// gone, which then shows as sock.eof, or the message is larger than the broker takes.
bool ubus_send_message(struct ubus_context *ctx, enum ubus_msg_type type, uint16_t seq,
		       uint32_t peer, struct blob_attr *attr);

// Takes a message from the socket, without waiting; the caller frees it.
enum ubus_receive_result ubus_receive_message(struct ubus_context *ctx,
					      struct ubus_inbound **message);

// Waits until the socket can be read; a deadline of 0 waits for ever. False when the
// deadline (ubus_now milliseconds) has passed.
bool ubus_wait_readable(const struct ubus_context *ctx, int64_t deadline);
int64_t ubus_now(void);

// The head in host byte order, and the attribute, whose own length is true.
struct ubus_msghdr ubus_message_head(const struct ubus_inbound *message);
struct blob_attr *ubus_message_attr(struct ubus_inbound *message);

// Sorts a message's attributes by id into UBUS_ATTR_MAX places; those of the wrong size
// or without their terminator are left out.
void ubus_parse_message(struct blob_attr *message, struct blob_attr **attrs);

// Keeps a message, which becomes the context's, for the loop to handle.
void ubus_queue_message(struct ubus_context *ctx, struct ubus_inbound *message);

// Initializes `req` and sends its message, the buffer's, which is freed. Returns
// UBUS_STATUS_INVALID_ARGUMENT when that fails.
int ubus_start_request(struct ubus_context *ctx, struct ubus_request *req, struct blob_buf *buf,
		       enum ubus_msg_type type, uint32_t peer);

// Hands a STATUS or DATA message to the asynchronous request that it belongs to, if any.
void ubus_handle_answer(struct ubus_context *ctx, struct ubus_inbound *message);

// Ends every asynchronous request: there will be no answers any more.
void ubus_end_requests(struct ubus_context *ctx);

// The broker is gone: ends the requests and tells the program.
void ubus_end_connection(struct ubus_context *ctx);

// Puts the connection's objects on a bus that does not know them. One that the broker
// refuses is the connection's no longer.
void ubus_add_objects_again(struct ubus_context *ctx);

// Runs the handler of a call that came in, and answers for it.
void ubus_handle_invoke(struct ubus_context *ctx, struct ubus_inbound *message);

// Appends `msg`'s attributes, none for NULL, as the message's DATA. False when they are
// too large.
bool ubus_put_data(struct blob_buf *buf, struct blob_attr *msg);
