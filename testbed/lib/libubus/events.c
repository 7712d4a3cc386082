// SPDX-License-Identifier: ISC
#include "ubus_internal.h"

// The broker delivers an event as a call whose method is the event's id.
static int on_event(struct ubus_context *ctx, struct ubus_object *obj,
		    struct ubus_request_data *req, const char *method, struct blob_attr *msg)
{
	struct ubus_event_handler *ev = container_of(obj, struct ubus_event_handler, obj);

	(void)req;
	ev->cb(ctx, ev, method, msg);
	return UBUS_STATUS_OK;
}

static const struct ubus_method any_event = {.name = NULL, .handler = on_event};

// Consumes the buffer.
static int invoke_broker(struct ubus_context *ctx, const char *method, struct blob_buf *arguments)
{
	const int status =
		ubus_invoke(ctx, UBUS_SYSTEM_OBJECT_EVENT, method, arguments->head, NULL, NULL, 0);

	blob_buf_free(arguments);
	return status;
}

int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev,
				const char *pattern)
{
	struct blob_buf arguments = {0};

	if (!ev->obj.id) {
		int status;

		ev->obj.methods = &any_event;
		ev->obj.n_methods = 1;
		status = ubus_add_object(ctx, &ev->obj);
		if (status)
			return status;
	}
	blob_buf_init(&arguments, 0);
	blobmsg_add_u32(&arguments, "object", ev->obj.id);
	blobmsg_add_string(&arguments, "pattern", pattern);
	return invoke_broker(ctx, "register", &arguments);
}

int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data)
{
	struct blob_buf arguments = {0};

	blob_buf_init(&arguments, 0);
	blobmsg_add_string(&arguments, "id", id);
	blobmsg_add_field(&arguments, BLOBMSG_TYPE_TABLE, "data", blob_data(data),
			  (unsigned int)blob_len(data));
	return invoke_broker(ctx, "send", &arguments);
}
