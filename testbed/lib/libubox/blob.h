// SPDX-License-Identifier: ISC
// Tagged binary data, the bus's wire format: attributes of a 4-byte big-endian head
// and a payload, and the buffer they are built in. The bus and the blobmsg layer
// call it. The accessors trust the attribute they are given: what came from outside
// goes through blob_parse_untrusted or blobmsg_check_attr_len first.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "utils.h"

enum {
	BLOB_ATTR_UNSPEC,
	BLOB_ATTR_NESTED,
	BLOB_ATTR_BINARY,
	BLOB_ATTR_STRING,
	BLOB_ATTR_INT8,
	BLOB_ATTR_INT16,
	BLOB_ATTR_INT32,
	BLOB_ATTR_INT64,
	BLOB_ATTR_DOUBLE,
	BLOB_ATTR_LAST
};

#define BLOB_ATTR_EXTENDED 0x80000000u // a blobmsg name follows the head
#define BLOB_ATTR_ID_MASK 0x7f000000u
#define BLOB_ATTR_ID_SHIFT 24
#define BLOB_ATTR_LEN_MASK 0x00ffffffu
#define BLOB_ATTR_ALIGN 4u

// Not `data[]`: gcc 12 takes that for two types, one of C and one of C++, and link-time
// optimization then assumes that a blob_attr pointer of one never aliases the other's.
struct blob_attr {
	uint32_t id_len; // big-endian: extended bit, id, length including this word
	char data[0];
} __packed;

// What blob_parse expects of one id. Zeroes expect nothing.
struct blob_attr_info {
	unsigned int type;   // BLOB_ATTR_*
	unsigned int minlen; // bytes of head and payload
};

// Starts zeroed. Attributes are appended to `head`, the innermost open nest; every
// append may move `buf`, and with it whatever pointer into it the caller kept.
struct blob_buf {
	struct blob_attr *head;
	bool (*grow)(struct blob_buf *buf, int minlen);
	int buflen; // bytes allocated
	void *buf;  // the outermost attribute, owned
};

static inline void *blob_data(const struct blob_attr *attr)
{
	return (void *)attr->data;
}

static inline unsigned int blob_id(const struct blob_attr *attr)
{
	return (be32_to_cpu(attr->id_len) & BLOB_ATTR_ID_MASK) >> BLOB_ATTR_ID_SHIFT;
}

static inline bool blob_is_extended(const struct blob_attr *attr)
{
	return (be32_to_cpu(attr->id_len) & BLOB_ATTR_EXTENDED) != 0;
}

// Bytes of head and payload, without padding.
static inline size_t blob_raw_len(const struct blob_attr *attr)
{
	return be32_to_cpu(attr->id_len) & BLOB_ATTR_LEN_MASK;
}

// Bytes of payload; 0 for a length that does not even cover the head.
static inline size_t blob_len(const struct blob_attr *attr)
{
	const size_t raw_len = blob_raw_len(attr);

	return raw_len < sizeof(struct blob_attr) ? 0 : raw_len - sizeof(struct blob_attr);
}

// Bytes up to the next attribute.
static inline size_t blob_pad_len(const struct blob_attr *attr)
{
	return (blob_raw_len(attr) + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

static inline struct blob_attr *blob_next(const struct blob_attr *attr)
{
	return (struct blob_attr *)(void *)((char *)attr + blob_pad_len(attr));
}

// Whether `remaining` bytes at `attr` hold the whole attribute with its padding.
static inline bool blob_attr_fits(const struct blob_attr *attr, size_t remaining)
{
	return remaining >= sizeof(struct blob_attr) &&
	       blob_raw_len(attr) >= sizeof(struct blob_attr) && blob_pad_len(attr) <= remaining;
}

static inline uint8_t blob_get_u8(const struct blob_attr *attr)
{
	return (uint8_t)attr->data[0];
}

static inline uint32_t blob_get_u32(const struct blob_attr *attr)
{
	uint32_t value;

	memcpy(&value, attr->data, sizeof(value));
	return be32_to_cpu(value);
}

static inline int32_t blob_get_int32(const struct blob_attr *attr)
{
	return (int32_t)blob_get_u32(attr);
}

static inline const char *blob_get_string(const struct blob_attr *attr)
{
	return attr->data;
}

void blob_set_raw_len(struct blob_attr *attr, unsigned int len);

// Empties the buffer, whose memory is used again, and starts the outermost attribute.
// Returns 0, or -1 without memory.
int blob_buf_init(struct blob_buf *buf, int id);
void blob_buf_free(struct blob_buf *buf);

// Makes room for `required` more bytes. False without memory and beyond 16 MiB, the
// most that a length can say; the buffer is then as it was.
bool blob_buf_grow(struct blob_buf *buf, int required);

// The functions that append return the new attribute, valid until the next append,
// or NULL, the buffer unchanged, when blob_buf_grow fails.
struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload);
struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len);

// Opens an attribute that takes what is appended until blob_nest_end gets the cookie.
// Nests close in the reverse order. NULL when there is no room, which blob_nest_end
// ignores.
void *blob_nest_start(struct blob_buf *buf, int id);
void blob_nest_end(struct blob_buf *buf, void *cookie);

// Whether `len` bytes at `ptr` are a value of that BLOB_ATTR_* type.
bool blob_check_type(const void *ptr, unsigned int len, int type);

// Sorts the attributes inside `attr` by id into data[0..max-1], NULL where there is
// none; the last of an id wins. What `info` (NULL: nothing) does not allow is left
// out. Returns how many ids were found. blob_parse believes the length of `attr` itself;
// blob_parse_untrusted returns 0 when that exceeds `attr_len`.
int blob_parse(struct blob_attr *attr, struct blob_attr **data, const struct blob_attr_info *info,
	       int max);
int blob_parse_untrusted(struct blob_attr *attr, size_t attr_len, struct blob_attr **data,
			 const struct blob_attr_info *info, int max);

static inline struct blob_attr *blob_put_string(struct blob_buf *buf, int id, const char *str)
{
	return blob_put(buf, id, str, (unsigned int)strlen(str) + 1);
}

static inline struct blob_attr *blob_put_u32(struct blob_buf *buf, int id, uint32_t val)
{
	val = cpu_to_be32(val);
	return blob_put(buf, id, &val, sizeof(val));
}

// Walks `rem` bytes of attributes from `attr` on, and stops at the first that does
// not fit into what is left.
#define __blob_for_each_attr(pos, attr, rem)                                                 \
	for ((pos) = (struct blob_attr *)(void *)(attr); blob_attr_fits(pos, (size_t)(rem)); \
	     (rem) = (__typeof__(rem))((size_t)(rem)-blob_pad_len(pos)), (pos) = blob_next(pos))

// Walks the attributes inside `attr`, which may be NULL.
#define blob_for_each_attr(pos, attr, rem)                                 \
	for ((rem) = (__typeof__(rem))((attr) ? blob_len(attr) : 0),       \
	    (pos) = (struct blob_attr *)((attr) ? blob_data(attr) : NULL); \
	     blob_attr_fits(pos, (size_t)(rem));                           \
	     (rem) = (__typeof__(rem))((size_t)(rem)-blob_pad_len(pos)), (pos) = blob_next(pos))
