// SPDX-License-Identifier: ISC
// libubox for the tests in this folder, and what a message looks like on the wire.
#pragma once

#include <cstdint>
#include <string>

extern "C" {
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
}

inline std::string to_hex(const void *data, size_t len)
{
	static const char digits[] = "0123456789abcdef";
	const auto *bytes = static_cast<const uint8_t *>(data);
	std::string text;

	for (size_t i = 0; i < len; i++) {
		if (i && i % 4 == 0)
			text += ' ';
		text += digits[bytes[i] >> 4];
		text += digits[bytes[i] & 15];
	}
	return text;
}

// A blob buffer that frees itself.
struct Buffer : blob_buf {
	explicit Buffer(int id = 0) : blob_buf{}
	{
		blob_buf_init(this, id);
	}
	~Buffer()
	{
		blob_buf_free(this);
	}
	Buffer(const Buffer &) = delete;
	Buffer &operator=(const Buffer &) = delete;

	std::string hex() const
	{
		return to_hex(head, blob_raw_len(head));
	}
	// What the outermost attribute holds.
	std::string content_hex() const
	{
		return to_hex(blob_data(head), blob_len(head));
	}
};
