// SPDX-License-Identifier: ISC
// What a message looks like on the wire: the stand-in's library and the original's talk to each
// other's broker.
#include <gtest/gtest.h>

extern "C" {
#include <libubox/blobmsg.h>
}

namespace
{

// A blob buffer that frees itself.
struct Buffer : blob_buf {
	Buffer() : blob_buf{}
	{
		blob_buf_init(this, 0);
	}
	~Buffer()
	{
		blob_buf_free(this);
	}
	Buffer(const Buffer &) = delete;
	Buffer &operator=(const Buffer &) = delete;

	// What the outermost attribute holds, in words.
	std::string content_hex() const
	{
		static const char digits[] = "0123456789abcdef";
		const auto *bytes = static_cast<const uint8_t *>(blob_data(head));
		std::string text;
		for (size_t i = 0; i < blob_len(head); i++) {
			text += i && i % 4 == 0 ? " " : "";
			text += digits[bytes[i] >> 4];
			text += digits[bytes[i] & 15];
		}
		return text;
	}
};

TEST(Blobmsg, FieldsHaveTheirWireForm)
{
	Buffer b;
	blobmsg_add_u8(&b, "b", 1);
	blobmsg_add_u32(&b, "abc", 0x12345678);
	blobmsg_add_u64(&b, "abcde", 0x0102030405060708);
	blobmsg_add_double(&b, "d", 1.5);
	blobmsg_add_string(&b, "s", "hi");
	EXPECT_EQ(b.content_hex(), "87000009 00016200 01000000 "
				   "85000010 00036162 63000000 12345678 "
				   "84000014 00056162 63646500 01020304 05060708 "
				   "88000010 00016400 3ff80000 00000000 "
				   "8300000b 00017300 68690000");
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

TEST(Blobmsg, TheFirstAttributeOfTheNameAndTypeIsRead)
{
	static const blobmsg_policy policy[] = {{"a", BLOBMSG_TYPE_STRING},
						{"b", BLOBMSG_TYPE_TABLE}};
	blob_attr *tb[2];
	Buffer b;
	blobmsg_add_u32(&b, "a", 1);
	blobmsg_add_string(&b, "aa", "other");
	blobmsg_add_string(&b, "a", "first");
	blobmsg_add_string(&b, "a", "second");
	blobmsg_add_string(&b, "b", "no table");
	ASSERT_EQ(blobmsg_parse(policy, 2, tb, blob_data(b.head),
				static_cast<unsigned>(blob_len(b.head))),
		  0);
	ASSERT_NE(tb[0], nullptr);
	EXPECT_STREQ(blobmsg_get_string(tb[0]), "first");
	EXPECT_EQ(tb[1], nullptr);
}

} // namespace
