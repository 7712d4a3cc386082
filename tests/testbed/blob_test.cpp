// SPDX-License-Identifier: ISC
#include <gtest/gtest.h>

#include "libubox.h"

namespace
{

constexpr size_t largest_blob = 0x00fffffc;

TEST(Blob, ValuesHaveTheirWireForm)
{
	Buffer b;

	blob_put_u8(&b, 1, 0xab);
	blob_put_u16(&b, 2, 0x1234);
	blob_put_u32(&b, 3, 0x12345678);
	blob_put_u64(&b, 4, 0x0102030405060708);
	blob_put_string(&b, 5, "hello");
	blob_put(&b, 127, nullptr, 0);
	EXPECT_EQ(b.hex(), "00000038 "
			   "01000005 ab000000 "
			   "02000006 12340000 "
			   "03000008 12345678 "
			   "0400000c 01020304 05060708 "
			   "0500000a 68656c6c 6f000000 "
			   "7f000004");
}

TEST(Blob, ValuesAreReadBack)
{
	blob_attr *tb[5];
	Buffer b;

	blob_put_int8(&b, 1, static_cast<uint8_t>(-2));
	blob_put_int16(&b, 2, static_cast<uint16_t>(-300));
	blob_put_int32(&b, 3, static_cast<uint32_t>(-70000));
	blob_put_int64(&b, 4, static_cast<uint64_t>(INT64_MIN));
	ASSERT_EQ(blob_parse(b.head, tb, nullptr, 5), 4);
	EXPECT_EQ(blob_get_int8(tb[1]), -2);
	EXPECT_EQ(blob_get_int16(tb[2]), -300);
	EXPECT_EQ(blob_get_int32(tb[3]), -70000);
	EXPECT_EQ(blob_get_int64(tb[4]), INT64_MIN);
}

TEST(Blob, PaddingIsZeroInMemoryThatIsUsedAgain)
{
	Buffer b;

	blob_put(&b, 1, "\xff\xff\xff\xff\xff\xff\xff\xff", 8);
	blob_buf_init(&b, 0);
	blob_put(&b, 1, "abcde", 5);
	EXPECT_EQ(b.content_hex(), "01000009 61626364 65000000");
}

TEST(Blob, NestsKeepTheirPlaceWhenTheBufferMoves)
{
	const std::string filler(100000, 'x');
	blob_attr *outer[3];
	blob_attr *inner[4];
	Buffer b;

	void *first = blob_nest_start(&b, 1);
	void *second = blob_nest_start(&b, 2);
	ASSERT_NE(blob_put_string(&b, 3, filler.c_str()), nullptr);
	blob_nest_end(&b, second);
	ASSERT_NE(blob_put_u32(&b, 3, 77), nullptr);
	blob_nest_end(&b, first);
	ASSERT_NE(blob_put_u8(&b, 2, 5), nullptr);

	EXPECT_EQ(static_cast<void *>(b.head), b.buf);
	ASSERT_EQ(blob_parse(b.head, outer, nullptr, 3), 2);
	EXPECT_EQ(blob_get_u8(outer[2]), 5);
	ASSERT_EQ(blob_parse(outer[1], inner, nullptr, 4), 2);
	EXPECT_EQ(blob_get_u32(inner[3]), 77u);
	ASSERT_EQ(blob_parse(inner[2], inner, nullptr, 4), 1);
	EXPECT_EQ(blob_get_string(inner[3]), filler);
}

TEST(Blob, InitKeepsTheMemory)
{
	Buffer b;

	blob_put(&b, 1, std::string(5000, 'x').data(), 5000);
	void *const memory = b.buf;
	const int capacity = b.buflen;
	ASSERT_EQ(blob_buf_init(&b, 9), 0);
	EXPECT_EQ(b.buf, memory);
	EXPECT_EQ(b.buflen, capacity);
	EXPECT_EQ(b.hex(), "09000004");
}

TEST(Blob, GrowthEndsAtTheLargestLength)
{
	STAND_IN_ONLY("grows beyond what the length can say");
	const std::string piece(65532, 'x');
	Buffer b;

	for (int i = 0; i < 255; i++)
		ASSERT_NE(blob_put(&b, 1, piece.data(), 65532), nullptr) << i;
	EXPECT_EQ(blob_put(&b, 1, piece.data(), 65532), nullptr);
	EXPECT_EQ(blob_raw_len(b.head), 4 + 255u * 65536);
	while (blob_put_u32(&b, 2, 0)) {
	}
	EXPECT_EQ(blob_raw_len(b.head), largest_blob);
	EXPECT_EQ(blob_nest_start(&b, 1), nullptr);
	EXPECT_EQ(blob_put_raw(&b, "\x01\x00\x00\x04", 4), nullptr);
	EXPECT_EQ(blobmsg_add_u8(&b, "x", 1), -1);
	EXPECT_EQ(blobmsg_open_table(&b, "x"), nullptr);
	EXPECT_EQ(blob_raw_len(b.head), largest_blob);
	ASSERT_EQ(blob_buf_init(&b, 0), 0);
	EXPECT_NE(blob_put_u32(&b, 1, 1), nullptr);
}

TEST(Blob, OneAttributeOfTheLargestLengthFits)
{
	STAND_IN_ONLY("grows beyond what the length can say");
	const struct {
		int payload;
		bool fits;
	} cases[] = {
		{0, true},	   {0xfffff4, true},  {0xfffff5, false},
		{0xfffffb, false}, {0xfffffc, false}, {0xffffff, false},
	};

	for (const auto &c : cases) {
		Buffer b;

		EXPECT_EQ(blob_new(&b, 1, c.payload) != nullptr, c.fits) << c.payload;
		EXPECT_EQ(blob_raw_len(b.head),
			  c.fits ? 8u + static_cast<unsigned>(c.payload) : 4u);
	}
}

TEST(Blob, RefusedMemoryLeavesTheBufferAsItWas)
{
	Buffer b;

	blob_put_u32(&b, 1, 1);
	b.grow = [](blob_buf *, int) {
		return false;
	};
	const std::string before = b.hex();
	EXPECT_EQ(blob_put(&b, 1, std::string(5000, 'x').data(), 5000), nullptr);
	EXPECT_EQ(b.hex(), before);
}

TEST(Blob, RawAttributesAreAppendedAsTheyAre)
{
	Buffer source;
	Buffer b;

	blob_put_u32(&source, 1, 1);
	blob_put_u8(&source, 2, 2);
	ASSERT_NE(blob_put_raw(&b, blob_data(source.head), 16), nullptr);
	EXPECT_EQ(b.content_hex(), source.content_hex());
	for (const unsigned int too_short : {0u, 1u, 3u})
		EXPECT_EQ(blob_put_raw(&b, "abc", too_short), nullptr);
	EXPECT_EQ(blob_put_raw(&b, nullptr, 0), nullptr);
	EXPECT_EQ(b.content_hex(), source.content_hex());
}

TEST(Blob, TypesAreChecked)
{
	const struct {
		int type;
		std::string value;
		bool good;
	} cases[] = {
		{BLOB_ATTR_INT8, "1", true},
		{BLOB_ATTR_INT8, "", false},
		{BLOB_ATTR_INT8, "12", false},
		{BLOB_ATTR_INT16, "12", true},
		{BLOB_ATTR_INT16, "1", false},
		{BLOB_ATTR_INT16, "123", false},
		{BLOB_ATTR_INT32, "1234", true},
		{BLOB_ATTR_INT32, "123", false},
		{BLOB_ATTR_INT32, "12345", false},
		{BLOB_ATTR_INT64, "12345678", true},
		{BLOB_ATTR_INT64, "1234", false},
		{BLOB_ATTR_INT64, "123456789", false},
		{BLOB_ATTR_DOUBLE, "12345678", true},
		{BLOB_ATTR_DOUBLE, "1234567", false},
		{BLOB_ATTR_STRING, std::string("\0", 1), true},
		{BLOB_ATTR_STRING, std::string("abc\0", 4), true},
		{BLOB_ATTR_STRING, "", false},
		{BLOB_ATTR_STRING, "abc", false},
		{BLOB_ATTR_STRING, std::string("\0abc", 4), false},
		{BLOB_ATTR_BINARY, "", true},
		{BLOB_ATTR_NESTED, "", true},
	};

	for (const auto &c : cases) {
		const Guarded value(Bytes(c.value.begin(), c.value.end()));

		EXPECT_EQ(blob_check_type(value.data(), static_cast<unsigned>(c.value.size()),
					  c.type),
			  c.good)
			<< c.type << " '" << c.value << "'";
	}
}

TEST(Blob, CopyIsEqualUntilItChanges)
{
	Buffer b;

	blob_put(&b, 1, "abcde", 5);
	blob_attr *copy = blob_memdup(b.head);
	ASSERT_NE(copy, nullptr);
	EXPECT_TRUE(blob_attr_equal(copy, b.head));
	static_cast<char *>(blob_data(copy))[4] = 'X';
	EXPECT_FALSE(blob_attr_equal(copy, b.head));
	EXPECT_FALSE(blob_attr_equal(copy, nullptr));
	EXPECT_FALSE(blob_attr_equal(nullptr, copy));
	EXPECT_TRUE(blob_attr_equal(nullptr, nullptr));
	free(copy);
}

} // namespace
