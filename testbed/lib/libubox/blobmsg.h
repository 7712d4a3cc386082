// SPDX-License-Identifier: ISC
// Named, typed values inside blob attributes: what methods take and reply. The
// getters trust their attribute; blobmsg_parse hands out only checked ones, and
// blobmsg_check_attr_len checks any other.
#pragma once

#include "blob.h"

enum blobmsg_type {
	BLOBMSG_TYPE_UNSPEC,
	BLOBMSG_TYPE_ARRAY,
	BLOBMSG_TYPE_TABLE,
	BLOBMSG_TYPE_STRING,
	BLOBMSG_TYPE_INT64,
	BLOBMSG_TYPE_INT32,
	BLOBMSG_TYPE_INT16,
	BLOBMSG_TYPE_INT8,
	BLOBMSG_TYPE_BOOL = BLOBMSG_TYPE_INT8,
	BLOBMSG_TYPE_DOUBLE,
	__BLOBMSG_TYPE_LAST,
	BLOBMSG_TYPE_LAST = __BLOBMSG_TYPE_LAST - 1,
};

struct blobmsg_hdr {
	uint16_t namelen; // big-endian, without the terminating zero
	uint8_t name[0];
} __packed;

// One wanted field. BLOBMSG_TYPE_UNSPEC takes any type; an entry without a name is
// skipped.
struct blobmsg_policy {
	const char *name;
	enum blobmsg_type type;
};

// Bytes between the blob head and the value.
static inline int blobmsg_hdrlen(unsigned int namelen)
{
	const size_t unpadded = sizeof(struct blobmsg_hdr) + namelen + 1;

	return (int)((unpadded + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1));
}

static inline uint16_t blobmsg_namelen(const struct blobmsg_hdr *hdr)
{
	return be16_to_cpu(hdr->namelen);
}

static inline const char *blobmsg_name(const struct blob_attr *attr)
{
	return (const char *)((const struct blobmsg_hdr *)blob_data(attr))->name;
}

static inline int blobmsg_type(const struct blob_attr *attr)
{
	return (int)blob_id(attr);
}

// The value; NULL of NULL.
static inline void *blobmsg_data(const struct blob_attr *attr)
{
	const struct blobmsg_hdr *hdr;

	if (!attr)
		return NULL;
	hdr = (const struct blobmsg_hdr *)blob_data(attr);
	if (!blob_is_extended(attr))
		return blob_data(attr);
	return (char *)blob_data(attr) + blobmsg_hdrlen(blobmsg_namelen(hdr));
}

// Bytes of the value; 0 of NULL and of a name that is longer than its attribute.
static inline size_t blobmsg_data_len(const struct blob_attr *attr)
{
	size_t before;

	if (!attr)
		return 0;
	before = (size_t)((char *)blobmsg_data(attr) - (char *)blob_data(attr));
	return blob_len(attr) < before ? 0 : blob_len(attr) - before;
}

static inline size_t blobmsg_len(const struct blob_attr *attr)
{
	return blobmsg_data_len(attr);
}

// Whether the attribute lies within `len` bytes, its name is whole and terminated (and
// not empty, with `name`), its type is known, and its value has a length of that type;
// a string must be terminated. What an array or a table holds is not looked at.
bool blobmsg_check_attr_len(const struct blob_attr *attr, bool name, size_t len);

// The same, believing the attribute's own length.
bool blobmsg_check_attr(const struct blob_attr *attr, bool name);

// Fills tb[i] with the first attribute of policy[i]'s name and type, NULL where there
// is none; other attributes are dropped. Returns 0, -EINVAL when there is no data at
// all, or -1 at a malformed attribute, and then tb holds what came before it. An
// attribute that the end of the data cuts off is not taken and is no error.
int blobmsg_parse(const struct blobmsg_policy *policy, int policy_len, struct blob_attr **tb,
		  void *data, unsigned int len);

// Everything that adds returns 0, or -1 without room, the buffer unchanged. A NULL name
// is the empty one, as elements of arrays have it. `data` is in wire format.
int blobmsg_add_field(struct blob_buf *buf, int type, const char *name, const void *data,
		      unsigned int len);

// Opens a table or an array that takes what is added until it is closed with the cookie.
// NULL without room, which closing ignores.
void *blobmsg_open_nested(struct blob_buf *buf, const char *name, bool array);

static inline void *blobmsg_open_array(struct blob_buf *buf, const char *name)
{
	return blobmsg_open_nested(buf, name, true);
}

static inline void *blobmsg_open_table(struct blob_buf *buf, const char *name)
{
	return blobmsg_open_nested(buf, name, false);
}

static inline void blobmsg_close_array(struct blob_buf *buf, void *cookie)
{
	blob_nest_end(buf, cookie);
}

static inline void blobmsg_close_table(struct blob_buf *buf, void *cookie)
{
	blob_nest_end(buf, cookie);
}

static inline int blobmsg_add_u8(struct blob_buf *buf, const char *name, uint8_t val)
{
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT8, name, &val, sizeof(val));
}

static inline int blobmsg_add_u32(struct blob_buf *buf, const char *name, uint32_t val)
{
	val = cpu_to_be32(val);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT32, name, &val, sizeof(val));
}

static inline int blobmsg_add_u64(struct blob_buf *buf, const char *name, uint64_t val)
{
	val = cpu_to_be64(val);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_INT64, name, &val, sizeof(val));
}

static inline int blobmsg_add_double(struct blob_buf *buf, const char *name, double val)
{
	uint64_t bits;

	memcpy(&bits, &val, sizeof(bits));
	bits = cpu_to_be64(bits);
	return blobmsg_add_field(buf, BLOBMSG_TYPE_DOUBLE, name, &bits, sizeof(bits));
}

static inline int blobmsg_add_string(struct blob_buf *buf, const char *name, const char *string)
{
	return blobmsg_add_field(buf, BLOBMSG_TYPE_STRING, name, string,
				 (unsigned int)strlen(string) + 1);
}

static inline uint8_t blobmsg_get_u8(struct blob_attr *attr)
{
	return *(uint8_t *)blobmsg_data(attr);
}

static inline bool blobmsg_get_bool(struct blob_attr *attr)
{
	return blobmsg_get_u8(attr) != 0;
}

static inline uint16_t blobmsg_get_u16(struct blob_attr *attr)
{
	uint16_t value;

	memcpy(&value, blobmsg_data(attr), sizeof(value));
	return be16_to_cpu(value);
}

static inline uint32_t blobmsg_get_u32(struct blob_attr *attr)
{
	uint32_t value;

	memcpy(&value, blobmsg_data(attr), sizeof(value));
	return be32_to_cpu(value);
}

static inline uint64_t blobmsg_get_u64(struct blob_attr *attr)
{
	uint64_t value;

	memcpy(&value, blobmsg_data(attr), sizeof(value));
	return be64_to_cpu(value);
}

static inline double blobmsg_get_double(struct blob_attr *attr)
{
	const uint64_t bits = blobmsg_get_u64(attr);
	double value;

	memcpy(&value, &bits, sizeof(value));
	return value;
}

// NULL of NULL; points into the attribute.
static inline char *blobmsg_get_string(struct blob_attr *attr)
{
	return (char *)blobmsg_data(attr);
}

// Walks the elements of an array or a table, which may be NULL.
#define blobmsg_for_each_attr(pos, attr, rem)                 \
	for ((rem) = (__typeof__(rem))blobmsg_data_len(attr), \
	    (pos) = (struct blob_attr *)blobmsg_data(attr);   \
	     blob_attr_fits(pos, (size_t)(rem));              \
	     (rem) = (__typeof__(rem))((size_t)(rem)-blob_pad_len(pos)), (pos) = blob_next(pos))
