// SPDX-License-Identifier: ISC
#include "ubus_internal.h"

static bool is_shown(const struct ubus_method *method, int argument)
{
	return !method->mask || (method->mask & (1ul << argument));
}

static void put_signature(struct blob_buf *buf, const struct ubus_object_type *type)
{
	void *signature = blob_nest_start(buf, UBUS_ATTR_SIGNATURE);

	for (int i = 0; i < type->n_methods; i++) {
		const struct ubus_method *method = &type->methods[i];
		void *arguments = blobmsg_open_table(buf, method->name);

		for (int j = 0; j < method->n_policy; j++) {
			if (is_shown(method, j)) {
				blobmsg_add_u32(buf, method->policy[j].name,
						method->policy[j].type);
			}
		}
		blobmsg_close_table(buf, arguments);
	}
	blob_nest_end(buf, signature);
}

static void on_object_added(struct ubus_request *req, int type, struct blob_attr *message)
{
	struct ubus_object *obj = (struct ubus_object *)req->priv;
	struct blob_attr *attrs[UBUS_ATTR_MAX];

	(void)type;
	ubus_parse_message(message, attrs);
	if (!attrs[UBUS_ATTR_OBJID])
		return;
	obj->id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
	if (attrs[UBUS_ATTR_OBJTYPE] && obj->type)
		obj->type->id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]);
}

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	struct blob_buf buf = {0};
	struct ubus_request req;
	int status;

	if (obj->id)
		return UBUS_STATUS_INVALID_ARGUMENT;
	blob_buf_init(&buf, 0);
	if (obj->name && obj->type) {
		blob_put_string(&buf, UBUS_ATTR_OBJPATH, obj->name);
		put_signature(&buf, obj->type);
	}
	status = ubus_start_request(ctx, &req, &buf, UBUS_MSG_ADD_OBJECT, 0);
	if (status)
		return status;
	req.raw_data_cb = on_object_added;
	req.priv = obj;
	status = ubus_complete_request(ctx, &req, 0);
	if (status)
		return status;
	if (!obj->id)
		return UBUS_STATUS_NO_DATA;
	list_add_tail(&obj->avl.list, &ctx->objects.list_head);
	ctx->objects.count++;
	return UBUS_STATUS_OK;
}

void ubus_add_objects_again(struct ubus_context *ctx)
{
	struct ubus_object *obj, *following;
	LIST_HEAD(objects);

	list_for_each_entry_safe(obj, following, &ctx->objects.list_head, avl.list)
	{
		list_del(&obj->avl.list);
		list_add_tail(&obj->avl.list, &objects);
		obj->id = 0;
		if (obj->type)
			obj->type->id = 0;
	}
	ctx->objects.count = 0;
	while (!list_empty(&objects)) {
		obj = list_first_entry(&objects, struct ubus_object, avl.list);
		list_del_init(&obj->avl.list);
		ubus_add_object(ctx, obj);
	}
}

struct lookup {
	ubus_lookup_handler_t cb;
	void *priv;
};

static void on_object_found(struct ubus_request *req, int type, struct blob_attr *message)
{
	const struct lookup *lookup = (const struct lookup *)req->priv;
	struct blob_attr *attrs[UBUS_ATTR_MAX];
	struct ubus_object_data found = {0};

	(void)type;
	ubus_parse_message(message, attrs);
	if (!attrs[UBUS_ATTR_OBJID] || !attrs[UBUS_ATTR_OBJPATH])
		return;
	found.id = blob_get_u32(attrs[UBUS_ATTR_OBJID]);
	found.path = blob_get_string(attrs[UBUS_ATTR_OBJPATH]);
	if (attrs[UBUS_ATTR_OBJTYPE])
		found.type_id = blob_get_u32(attrs[UBUS_ATTR_OBJTYPE]);
	found.signature = attrs[UBUS_ATTR_SIGNATURE];
	lookup->cb(req->ctx, &found, lookup->priv);
}

int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv)
{
	struct lookup lookup = {.cb = cb, .priv = priv};
	struct blob_buf buf = {0};
	struct ubus_request req;
	int status;

	blob_buf_init(&buf, 0);
	if (path)
		blob_put_string(&buf, UBUS_ATTR_OBJPATH, path);
	status = ubus_start_request(ctx, &req, &buf, UBUS_MSG_LOOKUP, 0);
	if (status)
		return status;
	req.raw_data_cb = on_object_found;
	req.priv = &lookup;
	return ubus_complete_request(ctx, &req, 0);
}

static void take_id(struct ubus_context *ctx, struct ubus_object_data *obj, void *priv)
{
	(void)ctx;
	*(uint32_t *)priv = obj->id;
}

int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id)
{
	return ubus_lookup(ctx, path, take_id, id);
}
