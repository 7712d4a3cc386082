// SPDX-License-Identifier: ISC
#include "blobmsg.h"

#include <errno.h>

#include "blob_nest.h"

static int wire_type(int type)
{
	switch (type) {
	case BLOBMSG_TYPE_INT8:
		return BLOB_ATTR_INT8;
	case BLOBMSG_TYPE_INT16:
		return BLOB_ATTR_INT16;
	case BLOBMSG_TYPE_INT32:
		return BLOB_ATTR_INT32;
	case BLOBMSG_TYPE_INT64:
		return BLOB_ATTR_INT64;
	case BLOBMSG_TYPE_DOUBLE:
		return BLOB_ATTR_DOUBLE;
	case BLOBMSG_TYPE_STRING:
		return BLOB_ATTR_STRING;
	default:
		return BLOB_ATTR_BINARY;
	}
}

// Whether the name lies within the attribute, terminator and padding included.
static bool name_is_whole(const struct blob_attr *attr, bool wanted)
{
	const struct blobmsg_hdr *hdr = blob_data(attr);
	uint16_t len;

	if (!blob_is_extended(attr))
		return !wanted;
	if (blob_len(attr) < sizeof(*hdr))
		return false;
	len = blobmsg_namelen(hdr);
	if (wanted && len == 0)
		return false;
	return blob_len(attr) >= (size_t)blobmsg_hdrlen(len) && hdr->name[len] == '\0';
}

bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len)
{
	if (len < sizeof(struct blob_attr))
		return false;
	if (blob_raw_len(attr) < sizeof(struct blob_attr) || blob_raw_len(attr) > len)
		return false;
	if (!name_is_whole(attr, name) || blobmsg_type(attr) > BLOBMSG_TYPE_LAST)
		return false;
	return blob_check_type(blobmsg_data(attr), (unsigned int)blobmsg_data_len(attr),
			       wire_type(blobmsg_type(attr)));
}

bool blobmsg_check_attr(const struct blob_attr *attr, bool name)
{
	return blobmsg_check_attr_len(attr, name, blob_raw_len(attr));
}

static bool type_matches(const struct blobmsg_policy *policy, const struct blob_attr *attr)
{
	return policy->type == BLOBMSG_TYPE_UNSPEC || (int)policy->type == blobmsg_type(attr);
}

static bool name_matches(const struct blobmsg_policy *policy, const struct blob_attr *attr)
{
	const struct blobmsg_hdr *hdr = blob_data(attr);
	size_t len;

	if (!policy->name || !blob_is_extended(attr))
		return false;
	len = blobmsg_namelen(hdr);
	return len == strlen(policy->name) && memcmp(hdr->name, policy->name, len) == 0;
}

static void clear_table(struct blob_attr **tb, int len)
{
	for (int i = 0; i < len; i++)
		tb[i] = NULL;
}

// Where the walk over attributes stopped: zeroes and an attribute that the end of the
// data cuts off are the end, a length that does not cover its own head is damage.
static int parse_result(const struct blob_attr *attr, size_t rem)
{
	if (rem < sizeof(*attr) || blob_raw_len(attr) == 0)
		return 0;
	return blob_raw_len(attr) < sizeof(*attr) ? -1 : 0;
}

int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
		  void *data, unsigned int len)
{
	struct blob_attr *attr;
	size_t rem = len;

	clear_table(tb, policy_len);
	if (!data || !len)
		return -EINVAL;
	__blob_for_each_attr(attr, data, rem)
	{
		if (!blobmsg_check_attr_len(attr, false, rem))
			return -1;
		for (int i = 0; i < policy_len; i++) {
			if (!tb[i] && type_matches(&policy[i], attr) &&
			    name_matches(&policy[i], attr))
				tb[i] = attr;
		}
	}
	return parse_result(attr, rem);
}

// Appends the attribute up to and including its name, with `len` bytes for the value.
static struct blob_attr *append_named(struct blob_buf *buf, int type, const char *name,
				      unsigned int len)
{
	const size_t namelen = name ? strlen(name) : 0;
	struct blobmsg_hdr *hdr;
	struct blob_attr *attr;
	int hdrlen;

	if (namelen > UINT16_MAX || len > BLOB_ATTR_LEN_MASK)
		return NULL;
	hdrlen = blobmsg_hdrlen((unsigned int)namelen);
	attr = blob_new(buf, type, hdrlen + (int)len);
	if (!attr)
		return NULL;
	attr->id_len |= cpu_to_be32(BLOB_ATTR_EXTENDED);
	hdr = blob_data(attr);
	memset(hdr, 0, (size_t)hdrlen);
	hdr->namelen = cpu_to_be16((uint16_t)namelen);
	if (namelen)
		memcpy(hdr->name, name, namelen);
	return attr;
}

int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data,
		      unsigned int len)
{
	struct blob_attr *attr = append_named(buf, type, name, len);

	if (!attr)
		return -1;
	if (len)
		memcpy(blobmsg_data(attr), data, len);
	return 0;
}

void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array)
{
	const int type = array ? BLOBMSG_TYPE_ARRAY : BLOBMSG_TYPE_TABLE;
	const size_t outer_offset = buf->head ? blob_offset_of(buf, buf->head) : 0;
	struct blob_attr *attr = append_named(buf, type, name, 0);

	return attr ? blob_nest_enter(buf, attr, outer_offset) : NULL;
}
