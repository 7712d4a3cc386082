// SPDX-License-Identifier: ISC
#include "blob.h"

#include <stdlib.h>

#include "blob_nest.h"

// The most that fits is a whole number of padded attributes whose sum the 24 bits of
// the outermost length can still say.
#define MAX_BUFFER_LEN (BLOB_ATTR_LEN_MASK + 1)
#define GROWTH_STEP 256u

// blob_nest_start hands out offsets; the outermost one would be taken for NULL.
#define NEST_COOKIE_BASE 1u

static size_t padded(size_t len)
{
	return (len + BLOB_ATTR_ALIGN - 1) & ~(size_t)(BLOB_ATTR_ALIGN - 1);
}

size_t blob_offset_of(const struct blob_buf *buf, const struct blob_attr *attr)
{
	return (size_t)((const char *)attr - (const char *)buf->buf);
}

static struct blob_attr *attr_at(const struct blob_buf *buf, size_t offset)
{
	return (struct blob_attr *)(void *)((char *)buf->buf + offset);
}

static bool grow_on_heap(struct blob_buf *buf, int minlen)
{
	const size_t extra = ((size_t)minlen + GROWTH_STEP - 1) / GROWTH_STEP * GROWTH_STEP;
	size_t wanted = (size_t)buf->buflen + extra;
	void *moved;

	if (wanted > MAX_BUFFER_LEN)
		wanted = MAX_BUFFER_LEN;
	moved = realloc(buf->buf, wanted);
	if (!moved)
		return false;
	buf->buf = moved;
	buf->buflen = (int)wanted;
	return true;
}

bool blob_buf_grow(struct blob_buf *buf, int required)
{
	const size_t head_offset = buf->buf ? blob_offset_of(buf, buf->head) : 0;

	if (required < 0 || (size_t)required > MAX_BUFFER_LEN - (size_t)buf->buflen)
		return false;
	if (!buf->grow || !buf->grow(buf, required))
		return false;
	buf->head = attr_at(buf, head_offset);
	return true;
}

void blob_set_raw_len(struct blob_attr *attr, unsigned int len)
{
	const uint32_t rest = be32_to_cpu(attr->id_len) & ~BLOB_ATTR_LEN_MASK;

	attr->id_len = cpu_to_be32(rest | (len & BLOB_ATTR_LEN_MASK));
}

// Makes `len` bytes at `offset` part of the buffer, the last of them zero as padding
// has to be. NULL when there is no room.
static struct blob_attr *claim(struct blob_buf *buf, size_t offset, size_t len)
{
	struct blob_attr *attr;

	if (len > BLOB_ATTR_LEN_MASK || offset + padded(len) > BLOB_ATTR_LEN_MASK)
		return NULL;
	if (offset + padded(len) > (size_t)buf->buflen &&
	    !blob_buf_grow(buf, (int)(offset + padded(len)) - buf->buflen))
		return NULL;
	attr = attr_at(buf, offset);
	memset((char *)attr + len, 0, padded(len) - len);
	return attr;
}

// Claims `len` bytes at the end of the innermost nest.
static struct blob_attr *append(struct blob_buf *buf, size_t len)
{
	struct blob_attr *attr;
	size_t head_len;

	if (!buf->head)
		return NULL;
	head_len = blob_pad_len(buf->head);
	attr = claim(buf, blob_offset_of(buf, buf->head) + head_len, len);
	if (attr)
		blob_set_raw_len(buf->head, (unsigned int)(head_len + padded(len)));
	return attr;
}

static void write_head(struct blob_attr *attr, int id, size_t len)
{
	const uint32_t id_bits = ((uint32_t)id << BLOB_ATTR_ID_SHIFT) & BLOB_ATTR_ID_MASK;

	attr->id_len = cpu_to_be32(id_bits | (uint32_t)len);
}

int blob_buf_init(struct blob_buf *buf, int id)
{
	if (!buf->grow)
		buf->grow = grow_on_heap;
	buf->head = buf->buf;
	if (!claim(buf, 0, sizeof(struct blob_attr)))
		return -1;
	write_head(buf->head, id, sizeof(struct blob_attr));
	return 0;
}

void blob_buf_free(struct blob_buf *buf)
{
	free(buf->buf);
	buf->head = NULL;
	buf->buf = NULL;
	buf->buflen = 0;
}

struct blob_attr *blob_new(struct blob_buf *buf, int id, int payload)
{
	struct blob_attr *attr;
	size_t len;

	if (payload < 0)
		return NULL;
	len = sizeof(struct blob_attr) + (size_t)payload;
	attr = append(buf, len);
	if (attr)
		write_head(attr, id, len);
	return attr;
}

struct blob_attr *blob_put(struct blob_buf *buf, int id, const void *ptr, unsigned int len)
{
	struct blob_attr *attr;

	if (len > BLOB_ATTR_LEN_MASK || (len && !ptr))
		return NULL;
	attr = blob_new(buf, id, (int)len);
	if (attr && len)
		memcpy(attr->data, ptr, len);
	return attr;
}

void *blob_nest_enter(struct blob_buf *buf, struct blob_attr *attr, size_t outer_offset)
{
	buf->head = attr;
	// NOLINTNEXTLINE(performance-no-int-to-ptr): the interface hands out pointers
	return (void *)(outer_offset + NEST_COOKIE_BASE);
}

void *blob_nest_start(struct blob_buf *buf, int id)
{
	const size_t outer_offset = buf->head ? blob_offset_of(buf, buf->head) : 0;
	struct blob_attr *attr = blob_new(buf, id, 0);

	return attr ? blob_nest_enter(buf, attr, outer_offset) : NULL;
}

void blob_nest_end(struct blob_buf *buf, void *cookie)
{
	struct blob_attr *outer;
	size_t len;

	if (!cookie)
		return;
	outer = attr_at(buf, (size_t)cookie - NEST_COOKIE_BASE);
	len = (size_t)((char *)buf->head - (char *)outer) + blob_pad_len(buf->head);
	blob_set_raw_len(outer, (unsigned int)len);
	buf->head = outer;
}
