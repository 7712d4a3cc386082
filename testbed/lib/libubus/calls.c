// SPDX-License-Identifier: ISC
// Calls that come in: the right handler, and the answers.
#include "ubus_internal.h"

static struct ubus_object *find_object(struct ubus_context *ctx, uint32_t id)
{
	struct ubus_object *obj;

	list_for_each_entry(obj, &ctx->objects.list_head, avl.list) if (obj->id == id) return obj;
	return NULL;
}

// A method without a name takes every call: events arrive that way.
static const struct ubus_method *find_method(const struct ubus_object *obj, const char *name)
{
	for (int i = 0; i < obj->n_methods; i++) {
		if (!obj->methods[i].name || strcmp(obj->methods[i].name, name) == 0)
			return &obj->methods[i];
	}
	return NULL;
}

static void send_status(struct ubus_context *ctx, const struct ubus_request_data *req, int status)
{
	struct blob_buf buf = {0};

	blob_buf_init(&buf, 0);
	blob_put_u32(&buf, UBUS_ATTR_STATUS, (uint32_t)status);
	blob_put_u32(&buf, UBUS_ATTR_OBJID, req->object);
	if (buf.head)
		ubus_send_message(ctx, UBUS_MSG_STATUS, req->seq, req->peer, buf.head);
	blob_buf_free(&buf);
}

static const char *string_or_null(const struct blob_attr *attr)
{
	return attr ? blob_get_string(attr) : NULL;
}

static int run_handler(struct ubus_context *ctx, struct ubus_request_data *req,
		       struct blob_attr **attrs)
{
	struct ubus_object *obj = find_object(ctx, req->object);
	const struct ubus_method *method;
	const char *name;

	if (!obj)
		return UBUS_STATUS_NOT_FOUND;
	if (!attrs[UBUS_ATTR_METHOD] || !attrs[UBUS_ATTR_DATA])
		return UBUS_STATUS_INVALID_ARGUMENT;
	name = blob_get_string(attrs[UBUS_ATTR_METHOD]);
	method = find_method(obj, name);
	if (!method)
		return UBUS_STATUS_METHOD_NOT_FOUND;
	req->acl.user = string_or_null(attrs[UBUS_ATTR_USER]);
	req->acl.group = string_or_null(attrs[UBUS_ATTR_GROUP]);
	req->acl.object = obj->name;
	return method->handler(ctx, obj, req, name, attrs[UBUS_ATTR_DATA]);
}

void ubus_handle_invoke(struct ubus_context *ctx, struct ubus_inbound *message)
{
	const struct ubus_msghdr head = ubus_message_head(message);
	struct ubus_request_data req = {.peer = head.peer, .seq = head.seq, .fd = -1};
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	bool no_reply;
	int status;

	ubus_parse_message(ubus_message_attr(message), attrs);
	if (!attrs[UBUS_ATTR_OBJID])
		return;
	req.object = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
	no_reply = attrs[UBUS_ATTR_NO_REPLY] && blob_get_u8(attrs[UBUS_ATTR_NO_REPLY]);
	status = run_handler(ctx, &req, attrs);
	if (!req.deferred && !no_reply)
		send_status(ctx, &req, status);
}

int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg)
{
	struct blob_buf buf = {0};
	bool sent;

	blob_buf_init(&buf, 0);
	blob_put_u32(&buf, UBUS_ATTR_OBJID, req->object);
	sent = ubus_put_data(&buf, msg) &&
	       ubus_send_message(ctx, UBUS_MSG_DATA, req->seq, req->peer, buf.head);
	blob_buf_free(&buf);
	return sent ? UBUS_STATUS_OK : UBUS_STATUS_NO_DATA;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req,
				    int ret)
{
	send_status(ctx, req, ret);
}
