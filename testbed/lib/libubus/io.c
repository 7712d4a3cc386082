// SPDX-License-Identifier: ISC
#include <errno.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <time.h>

#include "ubus_internal.h"

#define HEAD_LEN (sizeof(struct ubus_msghdr) + sizeof(struct blob_attr))

int64_t ubus_now(void)
{
	struct timespec now;

	clock_gettime(CLOCK_MONOTONIC, &now);
	return (int64_t)now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

bool ubus_wait_readable(const struct ubus_context *ctx, int64_t deadline)
{
	struct pollfd watch = {.fd = ctx->sock.fd, .events = POLLIN};
	int64_t left = -1;

	if (deadline) {
		left = deadline - ubus_now();
		if (left <= 0)
			return false;
	}
	// What poll says does not matter: the caller reads, and comes back if that was early.
	poll(&watch, 1, (int)left);
	return true;
}

static void skip_sent(struct msghdr *message, size_t sent)
{
	while (sent > 0) {
		struct iovec *part = message->msg_iov;

		if (sent < part->iov_len) {
			part->iov_base = (char *)part->iov_base + sent;
			part->iov_len -= sent;
			return;
		}
		sent -= part->iov_len;
		message->msg_iov++;
		message->msg_iovlen--;
	}
}

bool ubus_send_message(struct ubus_context *ctx, enum ubus_msg_type type, uint16_t seq,
		       uint32_t peer, struct blob_attr *attr)
{
	struct ubus_msghdr head = {
		.type = (uint8_t)type, .seq = cpu_to_be16(seq), .peer = cpu_to_be32(peer)};
	struct iovec parts[] = {{.iov_base = &head, .iov_len = sizeof(head)},
				{.iov_base = attr, .iov_len = blob_raw_len(attr)}};
	struct msghdr message = {.msg_iov = parts, .msg_iovlen = ARRAY_SIZE(parts)};

	if (blob_raw_len(attr) > UBUS_MSG_MAX_LEN)
		return false;
	while (message.msg_iovlen > 0) {
		// The program may have left SIGPIPE alone.
		const ssize_t sent = sendmsg(ctx->sock.fd, &message, MSG_NOSIGNAL);
		struct pollfd watch = {.fd = ctx->sock.fd, .events = POLLOUT};

		if (sent >= 0) {
			skip_sent(&message, (size_t)sent);
		} else if (errno == EAGAIN) {
			poll(&watch, 1, -1);
		} else if (errno != EINTR) {
			ctx->sock.eof = true;
			return false;
		}
	}
	return true;
}

static struct ubus_inbound *resize_inbound(struct ubus_inbound *inbound, size_t wire_len)
{
	struct ubus_inbound *resized = realloc(inbound, sizeof(*inbound) + wire_len);

	if (resized && !inbound)
		resized->received = 0;
	return resized;
}

// Fills `wire` up to `wanted` bytes. The descriptors that a peer may have attached are
// dropped by the kernel, because there is no room for them.
static enum ubus_receive_result receive_up_to(struct ubus_context *ctx, size_t wanted)
{
	struct ubus_inbound *inbound = ctx->inbound;

	while (inbound->received < wanted) {
		const ssize_t got = recv(ctx->sock.fd, (char *)inbound->wire + inbound->received,
					 wanted - inbound->received, 0);

		if (got > 0) {
			inbound->received += (size_t)got;
		} else if (got < 0 && errno == EAGAIN) {
			return UBUS_NOTHING_YET;
		} else if (got == 0 || errno != EINTR) {
			return UBUS_CLOSED;
		}
	}
	return UBUS_RECEIVED;
}

// Makes room for the whole message once its head is there. False when its length is
// none that the broker sends.
static bool make_room(struct ubus_context *ctx)
{
	const size_t attr_len = blob_raw_len(ubus_message_attr(ctx->inbound));
	struct ubus_inbound *resized;

	if (attr_len < sizeof(struct blob_attr) || attr_len > UBUS_MSG_MAX_LEN)
		return false;
	if (ctx->inbound->received > HEAD_LEN)
		return true;
	resized = resize_inbound(ctx->inbound, sizeof(struct ubus_msghdr) + attr_len);
	if (resized)
		ctx->inbound = resized;
	return resized != NULL;
}

enum ubus_receive_result ubus_receive_message(struct ubus_context *ctx,
					      struct ubus_inbound **message)
{
	enum ubus_receive_result result;
	size_t attr_len;

	if (!ctx->inbound)
		ctx->inbound = resize_inbound(NULL, HEAD_LEN);
	if (!ctx->inbound)
		return UBUS_CLOSED;
	result = receive_up_to(ctx, HEAD_LEN);
	if (result != UBUS_RECEIVED)
		return result;
	if (!make_room(ctx)) {
		// Nobody can tell where the next message begins.
		shutdown(ctx->sock.fd, SHUT_RDWR);
		return UBUS_CLOSED;
	}
	attr_len = blob_raw_len(ubus_message_attr(ctx->inbound));
	result = receive_up_to(ctx, sizeof(struct ubus_msghdr) + attr_len);
	if (result == UBUS_RECEIVED) {
		*message = ctx->inbound;
		ctx->inbound = NULL;
	}
	return result;
}

struct ubus_msghdr ubus_message_head(const struct ubus_inbound *message)
{
	struct ubus_msghdr head;

	memcpy(&head, message->wire, sizeof(head));
	head.seq = be16_to_cpu(head.seq);
	head.peer = be32_to_cpu(head.peer);
	return head;
}

struct blob_attr *ubus_message_attr(struct ubus_inbound *message)
{
	return (struct blob_attr *)((char *)message->wire + sizeof(struct ubus_msghdr));
}

void ubus_parse_message(struct blob_attr *message, struct blob_attr **attrs)
{
	static const struct blob_attr_info expected[UBUS_ATTR_MAX] = {
		[UBUS_ATTR_STATUS] = {.type = BLOB_ATTR_INT32},
		[UBUS_ATTR_OBJPATH] = {.type = BLOB_ATTR_STRING},
		[UBUS_ATTR_OBJID] = {.type = BLOB_ATTR_INT32},
		[UBUS_ATTR_METHOD] = {.type = BLOB_ATTR_STRING},
		[UBUS_ATTR_OBJTYPE] = {.type = BLOB_ATTR_INT32},
		[UBUS_ATTR_NO_REPLY] = {.type = BLOB_ATTR_INT8},
		[UBUS_ATTR_USER] = {.type = BLOB_ATTR_STRING},
		[UBUS_ATTR_GROUP] = {.type = BLOB_ATTR_STRING},
	};

	blob_parse(message, attrs, expected, UBUS_ATTR_MAX);
}
