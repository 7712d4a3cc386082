// SPDX-License-Identifier: ISC
#include <stdlib.h>

#include "ubus_internal.h"

int ubus_start_request(struct ubus_context *ctx, struct ubus_request *req, struct blob_buf *buf,
		       enum ubus_msg_type type, uint32_t peer)
{
	bool sent;

	memset(req, 0, sizeof(*req));
	INIT_LIST_HEAD(&req->list);
	req->ctx = ctx;
	req->peer = peer;
	req->seq = ++ctx->request_seq;
	sent = buf->head && ubus_send_message(ctx, type, req->seq, peer, buf->head);
	blob_buf_free(buf);
	return sent ? UBUS_STATUS_OK : UBUS_STATUS_INVALID_ARGUMENT;
}

static bool is_answer_to(const struct ubus_inbound *message, const struct ubus_request *req)
{
	const struct ubus_msghdr head = ubus_message_head(message);

	return (head.type == UBUS_MSG_STATUS || head.type == UBUS_MSG_DATA) &&
	       head.seq == req->seq && head.peer == req->peer;
}

static void end_request(struct ubus_request *req, int status)
{
	list_del_init(&req->list);
	req->status_code = status;
	req->status_msg = true;
	if (req->complete_cb)
		req->complete_cb(req, status);
}

// The callbacks may end the request's life: it is not touched after them.
static void take_answer(struct ubus_request *req, struct ubus_inbound *message)
{
	struct blob_attr *whole = ubus_message_attr(message);
	struct blob_attr *attrs[UBUS_ATTR_MAX];

	ubus_parse_message(whole, attrs);
	if (ubus_message_head(message).type == UBUS_MSG_STATUS) {
		end_request(req, attrs[UBUS_ATTR_STATUS] ? blob_get_int32(attrs[UBUS_ATTR_STATUS])
							 : UBUS_STATUS_UNKNOWN_ERROR);
	} else if (req->raw_data_cb) {
		req->raw_data_cb(req, UBUS_MSG_DATA, whole);
	} else if (req->data_cb && attrs[UBUS_ATTR_DATA]) {
		req->data_cb(req, UBUS_MSG_DATA, attrs[UBUS_ATTR_DATA]);
	}
}

void ubus_handle_answer(struct ubus_context *ctx, struct ubus_inbound *message)
{
	struct ubus_request *req;

	list_for_each_entry(req, &ctx->requests, list)
	{
		if (!is_answer_to(message, req))
			continue;
		take_answer(req, message);
		return;
	}
}

void ubus_end_requests(struct ubus_context *ctx)
{
	while (!list_empty(&ctx->requests)) {
		end_request(list_first_entry(&ctx->requests, struct ubus_request, list),
			    UBUS_STATUS_TIMEOUT);
	}
}

// A wait inside this request's data callback has put later parts aside.
static struct ubus_inbound *take_pending_answer(struct ubus_context *ctx,
						const struct ubus_request *req)
{
	struct ubus_inbound *message;

	list_for_each_entry(message, &ctx->pending, list)
	{
		if (!is_answer_to(message, req))
			continue;
		list_del(&message->list);
		return message;
	}
	return NULL;
}

int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout)
{
	const int64_t deadline = timeout > 0 ? ubus_now() + timeout : 0;

	while (!req->status_msg) {
		struct ubus_inbound *message = take_pending_answer(ctx, req);
		enum ubus_receive_result result = UBUS_RECEIVED;

		if (!message)
			result = ubus_receive_message(ctx, &message);
		if (result == UBUS_CLOSED) {
			ubus_end_connection(ctx);
			return UBUS_STATUS_CONNECTION_FAILED;
		}
		if (result == UBUS_NOTHING_YET) {
			if (!ubus_wait_readable(ctx, deadline))
				return UBUS_STATUS_TIMEOUT;
		} else if (is_answer_to(message, req)) {
			take_answer(req, message);
			free(message);
		} else {
			ubus_queue_message(ctx, message);
		}
	}
	return req->status_code;
}

void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req)
{
	if (list_empty(&req->list))
		list_add_tail(&req->list, &ctx->requests);
}

void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req)
{
	(void)ctx;
	list_del_init(&req->list);
}

bool ubus_put_data(struct blob_buf *buf, struct blob_attr *msg)
{
	return blob_put(buf, UBUS_ATTR_DATA, msg ? blob_data(msg) : NULL,
			msg ? (unsigned int)blob_len(msg) : 0) != NULL;
}

int ubus_invoke_async_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
			 struct blob_attr *msg, struct ubus_request *req, int fd)
{
	struct blob_buf buf = {0};

	if (fd >= 0)
		return UBUS_STATUS_NOT_SUPPORTED;
	blob_buf_init(&buf, 0);
	blob_put_u32(&buf, UBUS_ATTR_OBJID, obj);
	blob_put_string(&buf, UBUS_ATTR_METHOD, method);
	if (!ubus_put_data(&buf, msg)) {
		blob_buf_free(&buf);
		return UBUS_STATUS_INVALID_ARGUMENT;
	}
	return ubus_start_request(ctx, req, &buf, UBUS_MSG_INVOKE, obj);
}

int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
		   struct blob_attr *msg, ubus_data_handler_t cb, void *priv, int timeout, int fd)
{
	struct ubus_request req;
	const int status = ubus_invoke_async_fd(ctx, obj, method, msg, &req, fd);

	if (status)
		return status;
	req.data_cb = cb;
	req.priv = priv;
	return ubus_complete_request(ctx, &req, timeout);
}
