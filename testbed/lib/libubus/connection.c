// SPDX-License-Identifier: ISC
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "ubus_internal.h"

#define DEFAULT_SOCKET "/var/run/ubus/ubus.sock"
#define GREETING_TIMEOUT_MS 30000

static void handle_message(struct ubus_context *ctx, struct ubus_inbound *message)
{
	switch (ubus_message_head(message).type) {
	case UBUS_MSG_STATUS:
	case UBUS_MSG_DATA:
		ubus_handle_answer(ctx, message);
		break;
	case UBUS_MSG_INVOKE:
		ubus_handle_invoke(ctx, message);
		break;
	default: // subscriptions are not used
		break;
	}
	free(message);
}

// A handler may wait for an answer meanwhile, and so add to the list or take from it.
static void handle_pending(struct ubus_context *ctx)
{
	while (!list_empty(&ctx->pending)) {
		struct ubus_inbound *message =
			list_first_entry(&ctx->pending, struct ubus_inbound, list);

		list_del(&message->list);
		handle_message(ctx, message);
	}
}

static void on_pending(struct uloop_timeout *timer)
{
	handle_pending(container_of(timer, struct ubus_context, pending_timer));
}

void ubus_queue_message(struct ubus_context *ctx, struct ubus_inbound *message)
{
	list_add_tail(&message->list, &ctx->pending);
	uloop_timeout_set(&ctx->pending_timer, 0);
}

void ubus_end_connection(struct ubus_context *ctx)
{
	ctx->sock.eof = true;
	ubus_end_requests(ctx);
	ctx->connection_lost(ctx);
}

// One message per pass keeps a talkative bus from starving the loop's other users. The
// loop does not call again when the broker has closed, so then all of them. A handler may
// have found the end itself.
static void on_readable(struct uloop_fd *sock, unsigned int events)
{
	struct ubus_context *ctx = container_of(sock, struct ubus_context, sock);
	enum ubus_receive_result result;

	(void)events;
	handle_pending(ctx);
	do {
		struct ubus_inbound *message;

		result = ubus_receive_message(ctx, &message);
		if (result == UBUS_RECEIVED)
			handle_message(ctx, message);
	} while (result == UBUS_RECEIVED && (sock->eof || !sock->registered));
	if (result == UBUS_CLOSED || sock->eof)
		ubus_end_connection(ctx);
}

static void end_the_loop(struct ubus_context *ctx)
{
	if (ctx->sock.registered)
		uloop_end();
}

static int connect_socket(const char *path)
{
	struct sockaddr_un address = {.sun_family = AF_UNIX};
	int fd;

	if (strlen(path) >= sizeof(address.sun_path))
		return -1;
	memcpy(address.sun_path, path, strlen(path));
	fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return -1;
	while (connect(fd, (struct sockaddr *)&address, sizeof(address))) {
		if (errno == EINTR)
			continue;
		close(fd);
		return -1;
	}
	// Connecting may wait for the broker; nothing after it may.
	fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
	return fd;
}

static bool receive_greeting(struct ubus_context *ctx)
{
	const int64_t deadline = ubus_now() + GREETING_TIMEOUT_MS;
	enum ubus_receive_result result;
	struct ubus_inbound *message;
	struct ubus_msghdr head;

	do {
		if (!ubus_wait_readable(ctx, deadline))
			return false;
		result = ubus_receive_message(ctx, &message);
	} while (result == UBUS_NOTHING_YET);
	if (result == UBUS_CLOSED)
		return false;
	head = ubus_message_head(message);
	free(message);
	ctx->local_id = head.peer;
	return head.type == UBUS_MSG_HELLO;
}

static void close_socket(struct ubus_context *ctx)
{
	free(ctx->inbound);
	ctx->inbound = NULL;
	if (ctx->sock.fd < 0)
		return;
	uloop_fd_delete(&ctx->sock);
	close(ctx->sock.fd);
}

int ubus_reconnect(struct ubus_context *ctx, const char *path)
{
	close_socket(ctx);
	ctx->sock.eof = false;
	ctx->sock.error = false;
	ctx->sock.fd = connect_socket(path ? path : DEFAULT_SOCKET);
	if (ctx->sock.fd < 0)
		return UBUS_STATUS_CONNECTION_FAILED;
	if (!receive_greeting(ctx)) {
		close(ctx->sock.fd);
		return UBUS_STATUS_UNKNOWN_ERROR;
	}
	ubus_add_objects_again(ctx);
	return UBUS_STATUS_OK;
}

int ubus_connect_ctx(struct ubus_context *ctx, const char *path)
{
	memset(ctx, 0, sizeof(*ctx));
	INIT_LIST_HEAD(&ctx->requests);
	INIT_LIST_HEAD(&ctx->objects.list_head);
	INIT_LIST_HEAD(&ctx->pending);
	ctx->pending_timer.cb = on_pending;
	ctx->sock.cb = on_readable;
	ctx->connection_lost = end_the_loop;
	ctx->sock.fd = -1;
	if (ubus_reconnect(ctx, path) == UBUS_STATUS_OK)
		return 0;
	free(ctx->inbound);
	ctx->inbound = NULL;
	return -1;
}

struct ubus_context *ubus_connect(const char *path)
{
	struct ubus_context *ctx = calloc(1, sizeof(*ctx));

	if (ctx && ubus_connect_ctx(ctx, path)) {
		free(ctx);
		return NULL;
	}
	return ctx;
}

void ubus_shutdown(struct ubus_context *ctx)
{
	struct ubus_inbound *message, *following;

	list_for_each_entry_safe(message, following, &ctx->pending, list) free(message);
	INIT_LIST_HEAD(&ctx->pending);
	uloop_timeout_cancel(&ctx->pending_timer);
	close_socket(ctx);
	ctx->sock.fd = -1;
}

void ubus_free(struct ubus_context *ctx)
{
	ubus_shutdown(ctx);
	free(ctx);
}

const char *ubus_strerror(int error)
{
	static const char *const texts[] = {
		[UBUS_STATUS_OK] = "Success",
		[UBUS_STATUS_INVALID_COMMAND] = "Invalid command",
		[UBUS_STATUS_INVALID_ARGUMENT] = "Invalid argument",
		[UBUS_STATUS_METHOD_NOT_FOUND] = "Method not found",
		[UBUS_STATUS_NOT_FOUND] = "Not found",
		[UBUS_STATUS_NO_DATA] = "No response",
		[UBUS_STATUS_PERMISSION_DENIED] = "Permission denied",
		[UBUS_STATUS_TIMEOUT] = "Request timed out",
		[UBUS_STATUS_NOT_SUPPORTED] = "Operation not supported",
		[UBUS_STATUS_UNKNOWN_ERROR] = "Unknown error",
		[UBUS_STATUS_CONNECTION_FAILED] = "Connection failed",
		[UBUS_STATUS_NO_MEMORY] = "Out of memory",
		[UBUS_STATUS_PARSE_ERROR] = "Parsing message data failed",
		[UBUS_STATUS_SYSTEM_ERROR] = "System error",
	};

	if (error < 0 || error >= __UBUS_STATUS_LAST)
		return "Unknown error";
	return texts[error];
}
