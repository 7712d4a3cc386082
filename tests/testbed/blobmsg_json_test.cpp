// SPDX-License-Identifier: ISC
#include <gtest/gtest.h>

#include "libubox.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

namespace
{

std::string taken(char *text)
{
	std::string copy = text ? text : "(null)";

	free(text);
	return copy;
}

std::string one_line(blob_attr *attr)
{
	return taken(blobmsg_format_json(attr, true));
}

std::string wire_form(const std::string &json)
{
	Buffer b;

	EXPECT_TRUE(blobmsg_add_json_from_string(&b, json.c_str())) << json;
	return b.content_hex();
}

std::string there_and_back(const std::string &json)
{
	Buffer b;

	EXPECT_TRUE(blobmsg_add_json_from_string(&b, json.c_str())) << json;
	return one_line(b.head);
}

TEST(BlobmsgJson, JsonTypesBecomeWireTypes)
{
	EXPECT_EQ(wire_form("{}"), "");
	EXPECT_EQ(wire_form(R"({"a":1})"), "8500000c 00016100 00000001");
	EXPECT_EQ(wire_form(R"({"a":-1})"), "8500000c 00016100 ffffffff");
	EXPECT_EQ(wire_form(R"({"a":2147483647})"), "8500000c 00016100 7fffffff");
	EXPECT_EQ(wire_form(R"({"a":2147483648})"), "84000010 00016100 00000000 80000000");
	EXPECT_EQ(wire_form(R"({"a":-2147483648})"), "8500000c 00016100 80000000");
	EXPECT_EQ(wire_form(R"({"a":-2147483649})"), "84000010 00016100 ffffffff 7fffffff");
	EXPECT_EQ(wire_form(R"({"a":1.5})"), "88000010 00016100 3ff80000 00000000");
	EXPECT_EQ(wire_form(R"({"a":true})"), "87000009 00016100 01000000");
	EXPECT_EQ(wire_form(R"({"a":null})"), "80000008 00016100");
	EXPECT_EQ(wire_form(R"({"a":"hi"})"), "8300000b 00016100 68690000");
	EXPECT_EQ(wire_form(R"({"a":{"b":[1]}})"),
		  "8200001c 00016100 81000014 00016200 8500000c 00000000 00000001");
}

TEST(BlobmsgJson, TextComesBackAsItWas)
{
	const std::string cases[] = {
		"{}",
		R"({"a":{},"b":[],"c":[[],{},[[]]]})",
		R"({"c":[1,2,[3,{"x":null}],"s"],"d":{"e":{"f":true}},"g":false,"n":null})",
		R"({"m":9223372036854775807,"q":-9223372036854775808,"j":2147483648})",
		R"({"d":1.500000,"g":-0.000000,"j":123456789.123457})",
		R"({"s":"q\"b\\s/ \b\u000c\n\r\t \u0001\u001f","k\"e\ny":""})",
		"{\"s\":\"\u00e9 \U0001f600 \x7f <>&'\"}",
	};

	for (const auto &json : cases)
		EXPECT_EQ(there_and_back(json), json);
}

TEST(BlobmsgJson, NumbersStopAtTheLargestInteger)
{
	EXPECT_EQ(there_and_back(R"({"o":9223372036854775808,"r":99999999999999999999999})"),
		  R"({"o":9223372036854775807,"r":9223372036854775807})");
}

TEST(BlobmsgJson, OnlyObjectsAreTaken)
{
	const char *cases[] = {
		"",	  "[1,2]",    "1",	  "null",     "\"x\"", "true",	      "{",
		"{\"a\"", "{\"a\":",  "{\"a\":1", "{\"a\":}", "{a:1}", "{\"a\":\"b}", "{\"a\":tru}",
		"}",	  "nonsense",
	};

	for (const char *json : cases) {
		Buffer b;

		EXPECT_FALSE(blobmsg_add_json_from_string(&b, json)) << json;
		EXPECT_EQ(b.content_hex(), "") << json;
	}
}

TEST(BlobmsgJson, AFullBufferIsReported)
{
	STAND_IN_ONLY("grows beyond what the length can say");
	const std::string filler(0xffff00, 'x');
	Buffer b;

	ASSERT_NE(blob_put(&b, 1, filler.data(), static_cast<unsigned>(filler.size())), nullptr);
	const std::string large = R"({"a":")" + std::string(1000, 'x') + "\"}";
	EXPECT_FALSE(blobmsg_add_json_from_string(&b, large.c_str()));
	EXPECT_FALSE(blobmsg_add_json_from_string(&b, (R"({"t":)" + large + "}").c_str()));
	EXPECT_TRUE(blobmsg_add_json_from_string(&b, "{}"));
}

TEST(BlobmsgJson, IndentedTextHasOneLinePerElement)
{
	Buffer b;

	ASSERT_TRUE(blobmsg_add_json_from_string(
		&b, R"({"a":1,"t":{"b":[true,"x"]},"none":{},"empty":[]})"));
	EXPECT_EQ(taken(blobmsg_format_json_indent(b.head, true, 0)), "{\n"
								      "\t\"a\": 1,\n"
								      "\t\"t\": {\n"
								      "\t\t\"b\": [\n"
								      "\t\t\ttrue,\n"
								      "\t\t\t\"x\"\n"
								      "\t\t]\n"
								      "\t},\n"
								      "\t\"none\": {\n"
								      "\t\t\n"
								      "\t},\n"
								      "\t\"empty\": [\n"
								      "\t\t\n"
								      "\t]\n"
								      "}");
	blob_buf_init(&b, 0);
	blobmsg_add_u32(&b, "a", 1);
	EXPECT_EQ(taken(blobmsg_format_json_indent(b.head, true, 2)), "{\n\t\t\t\"a\": 1\n\t\t}");
}

TEST(BlobmsgJson, OneAttributeIsWrittenWithItsName)
{
	Buffer b;

	ASSERT_TRUE(blobmsg_add_json_from_string(&b, R"({"a":{"b":[1,"x"]}})"));
	auto *a = static_cast<blob_attr *>(blob_data(b.head));
	EXPECT_EQ(taken(blobmsg_format_json(a, false)), R"("a":{"b":[1,"x"]})");
	EXPECT_EQ(taken(blobmsg_format_json(a, true)), R"({"b":[1,"x"]})");
	auto *array = static_cast<blob_attr *>(blobmsg_data(a));
	EXPECT_EQ(taken(blobmsg_format_json(array, true)), R"([1,"x"])");
}

TEST(BlobmsgJson, SmallIntegersAreSignedAndBytesAreBooleans)
{
	Buffer b;

	blobmsg_add_u16(&b, "w", 65535);
	blobmsg_add_u8(&b, "v", 200);
	EXPECT_EQ(one_line(b.head), R"({"w":-1,"v":true})");
}

TEST(BlobmsgJson, ACallbackReplacesTheTextOfAnAttribute)
{
	Buffer b;

	ASSERT_TRUE(blobmsg_add_json_from_string(&b, R"({"a":1,"s":"x","t":{"s":"y"}})"));
	const auto replace = [](void *priv, blob_attr *attr) -> const char * {
		return blobmsg_type(attr) == BLOBMSG_TYPE_STRING ? static_cast<char *>(priv)
								 : nullptr;
	};
	char text[] = "(text)";
	EXPECT_EQ(taken(blobmsg_format_json_with_cb(b.head, true, replace, text, -1)),
		  R"({"a":1,"s":(text),"t":{"s":(text)}})");
}

TEST(BlobmsgJson, DamagedElementsAreLeftOut)
{
	STAND_IN_ONLY("leaves a comma behind");
	const char *cases[] = {
		"85000009 00016200 01000000", "83000008 00016200",
		"8300000b 00016200 61626300", "83000010 00096200 61626300 00000000",
		"89000008 00016200",	      "85000002",
	};

	for (const char *damage : cases) {
		const Bytes bytes = from_hex(damage);
		Buffer b;

		blobmsg_add_u32(&b, "a", 1);
		ASSERT_NE(blob_put_raw(&b, bytes.data(), static_cast<unsigned>(bytes.size())),
			  nullptr);
		EXPECT_EQ(one_line(b.head), R"({"a":1})") << damage;
	}
}

TEST(BlobmsgJson, WhatIsNoAttributeHasNoText)
{
	STAND_IN_ONLY("ends by SIGSEGV");
	const Guarded damaged(from_hex("85000009 00016200 01000000"));
	const Guarded empty(from_hex("82000008 00016200"));

	EXPECT_EQ(blobmsg_format_json(nullptr, true), nullptr);
	EXPECT_EQ(blobmsg_format_json(nullptr, false), nullptr);
	EXPECT_EQ(blobmsg_format_json(damaged.attr(), false), nullptr);
	EXPECT_EQ(taken(blobmsg_format_json(empty.attr(), false)), R"("b":{})");
}

// A message may hold tables within tables by the hundred thousand.
TEST(BlobmsgJson, NestingEndsWhereTheParserEnds)
{
	std::string json = "1";

	for (int i = 0; i < 31; i++)
		json.insert(0, R"({"a":)").append("}");
	EXPECT_EQ(there_and_back(json), json);

	STAND_IN_ONLY("uses up the stack and ends by SIGSEGV");
	Buffer b;
	for (int i = 0; i < 200000; i++)
		ASSERT_NE(blobmsg_open_table(&b, nullptr), nullptr);
	auto *outermost = static_cast<blob_attr *>(b.buf);
	for (size_t offset = 0; offset < 8u * 200000; offset += 8) {
		auto *attr = reinterpret_cast<blob_attr *>(static_cast<char *>(b.buf) + 4 + offset);

		blob_set_raw_len(attr, static_cast<unsigned>(8u * 200000 - offset));
	}
	blob_set_raw_len(outermost, 8u * 200000 + 4);
	EXPECT_EQ(blobmsg_format_json(outermost, true), nullptr);
}

} // namespace
