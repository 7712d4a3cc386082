// SPDX-License-Identifier: ISC
// JSON text to blobmsg and back, for the command-line tools. json-c reads the text;
// nothing of json-c shows in this interface but the object pointer.
#pragma once

#include <stdbool.h>

#include "blobmsg.h"

struct json_object;

// Adds the members of a JSON object to the buffer. False, with the buffer holding what
// was added before, for anything but an object and when the buffer cannot grow.
bool blobmsg_add_object(struct blob_buf *b, struct json_object *obj);
bool blobmsg_add_json_from_string(struct blob_buf *b, const char *str);

// Adds one JSON value under a name: integers as int32 where they fit and as int64
// beyond, null as an attribute of no type.
bool blobmsg_add_json_element(struct blob_buf *b, const char *name, struct json_object *obj);

// The text of a checked attribute, for free(): with `list`, of what it holds, in braces
// (brackets for an array); without, of the attribute itself with its name. A negative
// indent gives one line without blanks, any other that many tabs. NULL without memory
// and for an attribute that has no text.
char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent);

static inline char *blobmsg_format_json(struct blob_attr *attr, bool list)
{
	return blobmsg_format_json_indent(attr, list, -1);
}
