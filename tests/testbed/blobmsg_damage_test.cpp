// SPDX-License-Identifier: ISC
// Messages that somebody made up: whoever may write to the bus may send these.
#include <gtest/gtest.h>

#include "libubox.h"

namespace
{

const blobmsg_policy any_a[] = {{"a", BLOBMSG_TYPE_UNSPEC}};

struct Damage {
	const char *name;
	const char *bytes;
};

int parse(const Guarded &message, size_t len, blob_attr **tb)
{
	return blobmsg_parse(any_a, 1, tb, message.data(), static_cast<unsigned int>(len));
}

TEST(BlobmsgDamage, AMalformedAttributeEndsTheParse)
{
	const Damage cases[] = {
		{"length 1", "85000001 00016100 00000001"},
		{"length 2", "85000002 00016100 00000001"},
		{"length 3", "85000003 00016100 00000001"},
		{"no room for the name length", "85000004 00016100 00000001"},
		{"half a name length", "85000005 00000000"},
		{"name length only", "80000006 00000000"},
		{"name longer than the attribute", "80000008 00096100"},
		{"name as long as can be said", "85000010 ffff6100 00000000 00000000"},
		{"name ends where the attribute does", "80000008 00026161"},
		{"name without terminator", "8500000c 00016161 00000001"},
		{"terminator elsewhere", "8500000c 00006100 00000001"},
		{"int8 without value", "87000008 00016100"},
		{"int8 of two bytes", "8700000a 00016100 01010000"},
		{"int16 of one byte", "86000009 00016100 01000000"},
		{"int16 of four bytes", "8600000c 00016100 01000000"},
		{"int32 without value", "85000008 00016100"},
		{"int32 of three bytes", "8500000b 00016100 01020300"},
		{"int32 of five bytes", "8500000d 00016100 01020304 05000000"},
		{"int64 of four bytes", "8400000c 00016100 01020304"},
		{"double of seven bytes", "8800000f 00016100 01020304 05060700"},
		{"string without value", "83000008 00016100"},
		{"string without terminator", "8300000b 00016100 61626300"},
		{"string with an early terminator only", "8300000b 00016100 00626300"},
		{"unknown type", "89000008 00016100"},
		{"largest type", "ff000008 00016100"},
	};

	for (const auto &c : cases) {
		const Bytes bytes = from_hex(c.bytes);
		const Guarded message(bytes);
		blob_attr *tb[1];

		EXPECT_EQ(parse(message, bytes.size(), tb), -1) << c.name;
		EXPECT_EQ(tb[0], nullptr) << c.name;
		EXPECT_FALSE(blobmsg_check_attr_len(message.attr(), false, bytes.size())) << c.name;
	}
}

TEST(BlobmsgDamage, WhatTheEndCutsOffIsNotTaken)
{
	const Damage cases[] = {
		{"one byte", "85"},
		{"three bytes", "850000"},
		{"head only", "8500000c"},
		{"name only", "8500000c 00016100"},
		{"half a value", "8500000c 00016100 0000"},
		{"padding missing", "87000009 00016100 01"},
		{"length beyond the data", "85000010 00016100 00000001"},
		{"length far beyond the data", "85ffffff 00016100 00000001"},
		{"zeroes", "00000000 00000000 00000000"},
		{"length 0", "85000000 00016100 00000001"},
	};

	for (const auto &c : cases) {
		const Bytes bytes = from_hex(c.bytes);
		const Guarded message(bytes);
		blob_attr *tb[1];

		EXPECT_EQ(parse(message, bytes.size(), tb), 0) << c.name;
		EXPECT_EQ(tb[0], nullptr) << c.name;
	}
}

TEST(BlobmsgDamage, WhatCameBeforeIsKept)
{
	const Bytes bytes = from_hex("8500000c 00016100 00000001 83000008 00016200");
	const Guarded message(bytes);
	blob_attr *tb[1];

	EXPECT_EQ(parse(message, bytes.size(), tb), -1);
	EXPECT_EQ(reinterpret_cast<char *>(tb[0]), message.data());
}

TEST(BlobmsgDamage, DamageInOtherFieldsCountsToo)
{
	const Bytes bytes = from_hex("83000008 00016200 8500000c 00016100 00000001");
	const Guarded message(bytes);
	blob_attr *tb[1];

	EXPECT_EQ(parse(message, bytes.size(), tb), -1);
	EXPECT_EQ(tb[0], nullptr);
}

TEST(BlobmsgDamage, CheckWantsTheWholeAttributeAndAName)
{
	const struct {
		const char *name;
		const char *bytes;
		size_t len;
		bool named;
		bool good;
	} cases[] = {
		{"whole", "8500000c 00016100 00000001", 12, true, true},
		{"longer data", "8500000c 00016100 00000001 0000", 14, true, true},
		{"no name wanted", "8500000c 00000000 00000001", 12, false, true},
		{"plain, no name wanted", "05000008 00000001", 8, false, true},
		{"empty table", "82000008 00016100", 8, true, true},
		{"damage inside a table", "8200000c 00016100 89ffffff", 12, true, true},
		{"one byte short", "8500000c 00016100 00000001", 11, true, false},
		{"head only", "8500000c 00016100 00000001", 4, true, false},
		{"half a head", "8500000c 00016100 00000001", 3, true, false},
		{"nothing", "8500000c 00016100 00000001", 0, true, false},
		{"name wanted, empty", "8500000c 00000000 00000001", 12, true, false},
		{"name wanted, plain", "05000008 00000001", 8, true, false},
		{"plain, wrong size", "05000009 00000001 00000000", 12, false, false},
	};

	for (const auto &c : cases) {
		Bytes bytes = from_hex(c.bytes);

		bytes.resize(c.len);
		const Guarded message(bytes);
		EXPECT_EQ(blobmsg_check_attr_len(message.attr(), c.named, c.len), c.good) << c.name;
	}
}

Bytes sample()
{
	Buffer b;

	blobmsg_add_string(&b, "first", "text");
	void *table = blobmsg_open_table(&b, "a");
	blobmsg_add_u64(&b, "long", 1);
	blobmsg_add_u8(&b, "flag", 1);
	blobmsg_close_table(&b, table);
	blobmsg_add_double(&b, "d", 1.0);
	return b.content();
}

// Looks at everything that a receiver would look at.
size_t walk(blob_attr *attr)
{
	size_t seen = 1;
	blob_attr *pos;
	size_t rem;

	if (blobmsg_type(attr) == BLOBMSG_TYPE_STRING)
		return strlen(blobmsg_get_string(attr));
	if (blobmsg_type(attr) != BLOBMSG_TYPE_TABLE && blobmsg_type(attr) != BLOBMSG_TYPE_ARRAY)
		return seen;
	blobmsg_for_each_attr(pos, attr, rem)
	{
		if (blobmsg_check_attr_len(pos, false, rem))
			seen += walk(pos);
	}
	return seen;
}

TEST(BlobmsgDamage, EveryTruncationStaysInside)
{
	const Bytes whole = sample();
	blob_attr *tb[1];

	for (size_t len = 1; len <= whole.size(); len++) {
		const Guarded message(Bytes(whole.begin(), whole.begin() + static_cast<long>(len)));

		EXPECT_EQ(parse(message, len, tb), 0) << len;
		EXPECT_EQ(tb[0] ? walk(tb[0]) : 3u, 3u) << len;
		// The table ends 16 bytes, the double, before the message does.
		EXPECT_EQ(tb[0] != nullptr, len >= whole.size() - 16) << len;
	}
}

TEST(BlobmsgDamage, NoSingleByteLeadsOutOfTheMessage)
{
	const Bytes whole = sample();
	const Guarded message(whole);
	size_t refused = 0;

	for (size_t i = 0; i < whole.size() * 256; i++) {
		blob_attr *tb[1];

		memcpy(message.data(), whole.data(), whole.size());
		message.data()[i / 256] = static_cast<char>(i % 256);
		if (parse(message, whole.size(), tb) != 0)
			refused++;
		if (tb[0])
			walk(tb[0]);
	}
	EXPECT_GT(refused, 100u);
	EXPECT_LT(refused, whole.size() * 256);
}

} // namespace
