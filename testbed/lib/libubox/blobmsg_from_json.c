// SPDX-License-Identifier: ISC
#include <json-c/json.h>

#include "blobmsg_json.h"

static bool add_array(struct blob_buf *b, const char *name, struct json_object *array)
{
	const size_t count = json_object_array_length(array);
	void *cookie = blobmsg_open_array(b, name);
	bool ok = cookie != NULL;

	for (size_t i = 0; ok && i < count; i++)
		ok = blobmsg_add_json_element(b, NULL, json_object_array_get_idx(array, i));
	blobmsg_close_array(b, cookie);
	return ok;
}

static bool add_table(struct blob_buf *b, const char *name, struct json_object *obj)
{
	void *cookie = blobmsg_open_table(b, name);
	const bool ok = cookie && blobmsg_add_object(b, obj);

	blobmsg_close_table(b, cookie);
	return ok;
}

static int add_int(struct blob_buf *b, const char *name, int64_t value)
{
	if (value >= INT32_MIN && value <= INT32_MAX)
		return blobmsg_add_u32(b, name, (uint32_t)value);
	return blobmsg_add_u64(b, name, (uint64_t)value);
}

bool blobmsg_add_json_element(struct blob_buf *b, const char *name, struct json_object *obj)
{
	switch (json_object_get_type(obj)) {
	case json_type_object:
		return add_table(b, name, obj);
	case json_type_array:
		return add_array(b, name, obj);
	case json_type_string:
		return blobmsg_add_string(b, name, json_object_get_string(obj)) == 0;
	case json_type_boolean:
		return blobmsg_add_u8(b, name, json_object_get_boolean(obj) ? 1 : 0) == 0;
	case json_type_int:
		return add_int(b, name, json_object_get_int64(obj)) == 0;
	case json_type_double:
		return blobmsg_add_double(b, name, json_object_get_double(obj)) == 0;
	case json_type_null:
		return blobmsg_add_field(b, BLOBMSG_TYPE_UNSPEC, name, NULL, 0) == 0;
	}
	return false;
}

bool blobmsg_add_object(struct blob_buf *b, struct json_object *obj)
{
	if (json_object_get_type(obj) != json_type_object)
		return false;
	json_object_object_foreach(obj, key, value)
	{
		if (!blobmsg_add_json_element(b, key, value))
			return false;
	}
	return true;
}

bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str)
{
	struct json_object *obj = json_tokener_parse(str);
	const bool ok = obj && blobmsg_add_object(b, obj);

	json_object_put(obj);
	return ok;
}
