// SPDX-License-Identifier: ISC
// libubox for the tests in this folder, and memory that ends where the data does: a
// read beyond it is a crash in every build, not only under the sanitizers.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
}

// Ends a test of what the stand-ins do beyond the originals, which take their callers and
// their broker at their word: `the original WHAT`.
#ifdef LIBUBOX_IS_THE_ORIGINAL
#define STAND_IN_ONLY(what) GTEST_SKIP() << "the original " what
#else
#define STAND_IN_ONLY(what) static_cast<void>(0)
#endif

using Bytes = std::vector<uint8_t>;

// "8500000c 00016100" -> bytes; blanks do not count.
inline Bytes from_hex(const std::string &text)
{
	std::string digits;
	Bytes bytes;

	for (const char c : text) {
		if (c != ' ')
			digits += c;
	}
	for (size_t i = 0; i + 1 < digits.size(); i += 2)
		bytes.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
	return bytes;
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

// A copy of some bytes right in front of a page that cannot be read.
class Guarded
{
public:
	explicit Guarded(const Bytes &bytes)
	{
		const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
		const size_t pages = (bytes.size() + page - 1) / page;

		mapped_ = (pages + 1) * page;
		base_ = static_cast<char *>(mmap(nullptr, mapped_, PROT_READ | PROT_WRITE,
						 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
		mprotect(base_ + pages * page, page, PROT_NONE);
		data_ = base_ + pages * page - bytes.size();
		if (!bytes.empty())
			memcpy(data_, bytes.data(), bytes.size());
	}
	~Guarded()
	{
		munmap(base_, mapped_);
	}
	Guarded(const Guarded &) = delete;
	Guarded &operator=(const Guarded &) = delete;

	char *data() const
	{
		return data_;
	}
	blob_attr *attr() const
	{
		return reinterpret_cast<blob_attr *>(data_);
	}

private:
	size_t mapped_;
	char *base_;
	char *data_;
};

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
	Bytes content() const
	{
		const auto *data = static_cast<const uint8_t *>(blob_data(head));

		return Bytes(data, data + blob_len(head));
	}
};
