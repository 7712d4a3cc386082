// SPDX-License-Identifier: ISC
#include <gtest/gtest.h>

#include "libubox.h"

namespace
{

blob_attr_info of_type(unsigned int type)
{
	blob_attr_info info{};

	info.type = type;
	return info;
}

TEST(BlobParse, TakesTheLastOfAnIdAndCountsItOnce)
{
	blob_attr *tb[3];
	Buffer b;

	blob_put_u32(&b, 1, 10);
	blob_put_u32(&b, 1, 20);
	EXPECT_EQ(blob_parse(b.head, tb, nullptr, 3), 1);
	EXPECT_EQ(blob_get_u32(tb[1]), 20u);
	EXPECT_EQ(tb[0], nullptr);
	EXPECT_EQ(tb[2], nullptr);
}

TEST(BlobParse, LeavesOutWhatTheInfoForbids)
{
	blob_attr_info info[5] = {};
	blob_attr *tb[5];
	Buffer b;

	info[1].type = BLOB_ATTR_INT32;
	info[2].minlen = 10;
	info[3].maxlen = 8;
	info[4].validate = [](const blob_attr_info *, blob_attr *attr) {
		return blob_get_u8(attr) == 'y';
	};
	for (const int id : {1, 2, 3, 4, 5, 127})
		blob_put(&b, id, "nnnnn", 5);
	EXPECT_EQ(blob_parse(b.head, tb, info, 5), 0);

	blob_buf_init(&b, 0);
	blob_put(&b, 1, "nnnn", 4);
	blob_put(&b, 2, "nnnnnn", 6);
	blob_put(&b, 3, "nnnn", 4);
	blob_put(&b, 4, "ynnn", 4);
	EXPECT_EQ(blob_parse(b.head, tb, info, 5), 4);
}

TEST(BlobParse, NothingIsParsedOfNothing)
{
	blob_attr *tb[2] = {reinterpret_cast<blob_attr *>(tb), reinterpret_cast<blob_attr *>(tb)};

	EXPECT_EQ(blob_parse(nullptr, tb, nullptr, 2), 0);
	EXPECT_EQ(tb[0], nullptr);
	EXPECT_EQ(tb[1], nullptr);
}

// Every case wants one INT32 of id 1 and cannot have it.
TEST(BlobParse, DamagedAttributesAreNotFollowed)
{
	const struct {
		const char *name;
		const char *bytes;
	} cases[] = {
		{"no bytes", ""},
		{"one byte", "00"},
		{"half a head", "0000"},
		{"three bytes", "000000"},
		{"empty", "00000004"},
		{"own length 0", "00000000 01000008 00000001"},
		{"own length 1", "00000001 01000008 00000001"},
		{"own length 3", "00000003 01000008 00000001"},
		{"own length beyond the data", "00000010 01000008 00000001"},
		{"own length far beyond", "00ffffff 01000008 00000001"},
		{"own length ends inside the first head", "00000006 01000008 00000001"},
		{"own length ends inside the first value", "0000000a 01000008 00000001"},
		{"length 0", "0000000c 01000000 00000001"},
		{"length 1", "00000008 01000001"},
		{"length 3", "00000008 01000003"},
		{"no value", "00000008 01000004"},
		{"value too short", "0000000c 01000007 00000001"},
		{"value too long", "00000010 01000009 00000001 01000000"},
		{"value beyond the parent", "0000000c 01000009 00000001"},
		{"value far beyond", "0000000c 01ffffff 00000001"},
		{"other id", "0000000c 02000008 00000001"},
		{"largest id", "0000000c 7f000008 00000001"},
		{"second head cut off", "00000012 02000008 00000001 0100 0000"},
		{"second length beyond", "00000010 02000008 00000001 01000008"},
	};
	const blob_attr_info info[2] = {{}, of_type(BLOB_ATTR_INT32)};

	for (const auto &c : cases) {
		const Bytes bytes = from_hex(c.bytes);
		const Guarded message(bytes);
		blob_attr *tb[2] = {}; // the original clears it only if the head is whole

		EXPECT_EQ(blob_parse_untrusted(message.attr(), bytes.size(), tb, info, 2), 0)
			<< c.name;
		EXPECT_EQ(tb[0], nullptr) << c.name;
		EXPECT_EQ(tb[1], nullptr) << c.name;
	}
}

TEST(BlobParse, WhatComesBeforeTheDamageIsTaken)
{
	const Bytes bytes = from_hex("00000014 01000008 00000001 020000ff 00000001");
	const Guarded message(bytes);
	blob_attr *tb[3];

	EXPECT_EQ(blob_parse_untrusted(message.attr(), bytes.size(), tb, nullptr, 3), 1);
	EXPECT_NE(tb[1], nullptr);
	EXPECT_EQ(tb[2], nullptr);
}

// All values of each byte of a nested message, one at a time.
TEST(BlobParse, NoSingleByteLeadsOutOfTheMessage)
{
	Buffer b;
	Bytes bytes;
	size_t walked = 0;

	void *nest = blob_nest_start(&b, 1);
	blob_put_string(&b, 2, "text");
	blob_put_u64(&b, 3, 1);
	blob_nest_end(&b, nest);
	blob_put_u8(&b, 4, 1);
	const auto *raw = reinterpret_cast<const uint8_t *>(b.head);
	bytes.assign(raw, raw + blob_raw_len(b.head));

	const Guarded message(bytes);
	for (size_t i = 0; i < bytes.size() * 256; i++) {
		blob_attr *tb[128];
		blob_attr *inner;
		size_t rem;

		memcpy(message.data(), bytes.data(), bytes.size());
		message.data()[i / 256] = static_cast<char>(i % 256);
		blob_parse_untrusted(message.attr(), bytes.size(), tb, nullptr, 128);
		if (!tb[1] || blob_raw_len(tb[1]) < sizeof(blob_attr))
			continue;
		blob_for_each_attr(inner, tb[1], rem)
		{
			EXPECT_LE(reinterpret_cast<char *>(inner) + blob_pad_len(inner),
				  message.data() + bytes.size());
			walked++;
		}
	}
	EXPECT_GT(walked, bytes.size() * 256);
}

} // namespace
