// SPDX-License-Identifier: ISC
#include <gtest/gtest.h>

#include <cerrno>

#include "libubox.h"

namespace
{

TEST(Blobmsg, FieldsHaveTheirWireForm)
{
	Buffer b;

	blobmsg_add_u8(&b, "b", 1);
	blobmsg_add_u16(&b, "w", 0x1234);
	blobmsg_add_u32(&b, "abc", 0x12345678);
	blobmsg_add_u64(&b, "abcde", 0x0102030405060708);
	blobmsg_add_double(&b, "d", 1.5);
	blobmsg_add_string(&b, "s", "hi");
	blobmsg_add_field(&b, BLOBMSG_TYPE_UNSPEC, "n", nullptr, 0);
	EXPECT_EQ(b.content_hex(), "87000009 00016200 01000000 "
				   "8600000a 00017700 12340000 "
				   "85000010 00036162 63000000 12345678 "
				   "84000014 00056162 63646500 01020304 05060708 "
				   "88000010 00016400 3ff80000 00000000 "
				   "8300000b 00017300 68690000 "
				   "80000008 00016e00");
}

TEST(Blobmsg, NestsHaveTheirWireForm)
{
	Buffer b;

	void *array = blobmsg_open_array(&b, "a");
	blobmsg_add_u8(&b, nullptr, 1);
	void *table = blobmsg_open_table(&b, nullptr);
	blobmsg_add_u8(&b, "x", 2);
	blobmsg_close_table(&b, table);
	blobmsg_close_array(&b, array);
	blobmsg_add_u8(&b, "y", 3);
	EXPECT_EQ(b.content_hex(), "81000028 00016100 "
				   "87000009 00000000 01000000 "
				   "82000014 00000000 87000009 00017800 02000000 "
				   "87000009 00017900 03000000");
}

TEST(Blobmsg, ValuesAreReadBack)
{
	static const blobmsg_policy policy[] = {
		{"b", BLOBMSG_TYPE_BOOL},  {"w", BLOBMSG_TYPE_INT16},  {"i", BLOBMSG_TYPE_INT32},
		{"l", BLOBMSG_TYPE_INT64}, {"d", BLOBMSG_TYPE_DOUBLE}, {"s", BLOBMSG_TYPE_STRING},
	};
	blob_attr *tb[6];
	Buffer b;

	blobmsg_add_u8(&b, "b", 200);
	blobmsg_add_u16(&b, "w", 65535);
	blobmsg_add_u32(&b, "i", UINT32_MAX);
	blobmsg_add_u64(&b, "l", UINT64_MAX - 1);
	blobmsg_add_double(&b, "d", -1e300);
	blobmsg_add_string(&b, "s", "");
	Buffer copy;
	blob_attr *pos;
	size_t rem;
	blob_for_each_attr(pos, b.head, rem) blobmsg_add_blob(&copy, pos);
	EXPECT_EQ(copy.hex(), b.hex());

	ASSERT_EQ(blobmsg_parse(policy, 6, tb, blob_data(copy.head),
				static_cast<unsigned>(blob_len(copy.head))),
		  0);
	EXPECT_TRUE(blobmsg_get_bool(tb[0]));
	EXPECT_EQ(blobmsg_get_u8(tb[0]), 200);
	EXPECT_EQ(blobmsg_get_u16(tb[1]), 65535);
	EXPECT_EQ(blobmsg_get_u32(tb[2]), UINT32_MAX);
	EXPECT_EQ(blobmsg_get_u64(tb[3]), UINT64_MAX - 1);
	EXPECT_EQ(blobmsg_get_double(tb[4]), -1e300);
	EXPECT_STREQ(blobmsg_get_string(tb[5]), "");
	EXPECT_STREQ(blobmsg_name(tb[4]), "d");
	EXPECT_EQ(blobmsg_type(tb[4]), BLOBMSG_TYPE_DOUBLE);
	EXPECT_EQ(blobmsg_len(tb[5]), 1u);
}

TEST(Blobmsg, TheAbsentAttributeHasNoValue)
{
	blob_attr *pos;
	size_t rem;

	EXPECT_EQ(blobmsg_data(nullptr), nullptr);
	EXPECT_EQ(blobmsg_data_len(nullptr), 0u);
	EXPECT_EQ(blobmsg_get_string(nullptr), nullptr);
	blob_attr *none = nullptr;
	blobmsg_for_each_attr(pos, none, rem) FAIL();
	blob_for_each_attr(pos, none, rem) FAIL();
}

TEST(Blobmsg, TheFirstAttributeOfTheNameAndTypeWins)
{
	static const blobmsg_policy policy[] = {
		{"a", BLOBMSG_TYPE_STRING}, {"a", BLOBMSG_TYPE_UNSPEC},
		{"b", BLOBMSG_TYPE_TABLE},  {nullptr, BLOBMSG_TYPE_UNSPEC},
		{"", BLOBMSG_TYPE_INT32},
	};
	blob_attr *tb[5];
	Buffer b;

	blobmsg_add_u32(&b, "a", 1);
	blobmsg_add_string(&b, "aa", "other");
	blobmsg_add_string(&b, "a", "first");
	blobmsg_add_string(&b, "a", "second");
	blobmsg_add_string(&b, "b", "no table");
	ASSERT_EQ(blobmsg_parse_attr(policy, 5, tb, b.head), 0);
	ASSERT_NE(tb[0], nullptr);
	EXPECT_STREQ(blobmsg_get_string(tb[0]), "first");
	ASSERT_NE(tb[1], nullptr);
	EXPECT_EQ(blobmsg_type(tb[1]), BLOBMSG_TYPE_INT32);
	EXPECT_EQ(tb[2], nullptr);
	EXPECT_EQ(tb[3], nullptr);
	EXPECT_EQ(tb[4], nullptr);
}

TEST(Blobmsg, NothingIsNoMessage)
{
	static const blobmsg_policy policy[] = {{"a", BLOBMSG_TYPE_STRING}};
	blob_attr *tb[1] = {reinterpret_cast<blob_attr *>(tb)};
	char none[1];

	EXPECT_EQ(blobmsg_parse(policy, 1, tb, nullptr, 0), -EINVAL);
	EXPECT_EQ(tb[0], nullptr);
	EXPECT_EQ(blobmsg_parse(policy, 1, tb, none, 0), -EINVAL);
}

TEST(Blobmsg, NamesOfEveryLengthArePadded)
{
	for (size_t len = 0; len < 40; len++) {
		const std::string name(len, 'n');
		const blobmsg_policy policy = {name.c_str(), BLOBMSG_TYPE_STRING};
		blob_attr *tb[1];
		Buffer b;

		blobmsg_add_string(&b, name.c_str(), "value");
		blobmsg_add_u8(&b, "after", 1);
		ASSERT_EQ(blobmsg_parse_attr(&policy, 1, tb, b.head), 0) << len;
		ASSERT_NE(tb[0], nullptr) << len;
		EXPECT_STREQ(blobmsg_get_string(tb[0]), "value");
		EXPECT_EQ(blobmsg_name(tb[0]), name);
		EXPECT_EQ((static_cast<char *>(blobmsg_data(tb[0])) - static_cast<char *>(b.buf)) %
				  4,
			  0);
	}
}

} // namespace
