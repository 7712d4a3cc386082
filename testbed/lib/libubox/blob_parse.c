// SPDX-License-Identifier: ISC
#include <stdlib.h>

#include "blob.h"

bool blob_check_type(const void *ptr, unsigned int len, int type)
{
	const char *bytes = ptr;

	switch (type) {
	case BLOB_ATTR_INT8:
		return len == sizeof(uint8_t);
	case BLOB_ATTR_INT16:
		return len == sizeof(uint16_t);
	case BLOB_ATTR_INT32:
		return len == sizeof(uint32_t);
	case BLOB_ATTR_INT64:
		return len == sizeof(uint64_t);
	case BLOB_ATTR_DOUBLE:
		return len >= sizeof(double);
	case BLOB_ATTR_STRING:
		return len > 0 && bytes[len - 1] == '\0';
	case BLOB_ATTR_UNSPEC:
	case BLOB_ATTR_NESTED:
	case BLOB_ATTR_BINARY:
		return true;
	default:
		return false;
	}
}

static bool allowed(struct blob_attr *attr, const struct blob_attr_info *info)
{
	const size_t len = blob_raw_len(attr);

	if (info->type < BLOB_ATTR_LAST &&
	    !blob_check_type(attr->data, (unsigned int)blob_len(attr), (int)info->type))
		return false;
	return len >= info->minlen;
}

int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
			 const struct blob_attr_info *info, int max)
{
	struct blob_attr *pos;
	int found = 0;
	size_t rem;

	for (int i = 0; i < max; i++)
		data[i] = NULL;
	if (attr_len < sizeof(struct blob_attr) || blob_raw_len(attr) > attr_len)
		return 0;
	blob_for_each_attr(pos, attr, rem)
	{
		const int id = (int)blob_id(pos);

		if (id >= max || (info && !allowed(pos, &info[id])))
			continue;
		found += data[id] == NULL;
		data[id] = pos;
	}
	return found;
}

int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info,
	       int max)
{
	return blob_parse_untrusted(attr, attr ? blob_raw_len(attr) : 0, data, info, max);
}
