// SPDX-License-Identifier: ISC
#include "base/text.h"

#include <gtest/gtest.h>
#include <string>

using namespace fwupdate;

namespace
{

constexpr std::int32_t lowest = INT32_MIN;
constexpr std::int32_t highest = INT32_MAX;

} // namespace

TEST(Text, NumbersAreReadAsTheTargetReadsThem)
{
	const struct {
		const char *text;
		std::int32_t number;
	} table[] = {
		{"0", 0},
		{"1", 1},
		{" \t1", 1},
		{"+1", 1},
		{"-1", -1},
		{"007", 7},
		{"12x", 12},
		{"0x10", 0},
		{"", 0},
		{"word", 0},
		{" ", 0},
		{"-", 0},
		{"2147483646", highest - 1},
		{"2147483647", highest},
		{"2147483648", highest},
		{"4294967297", highest},
		{"99999999999999999999999", highest},
		{"-2147483647", lowest + 1},
		{"-2147483648", lowest},
		{"-2147483649", lowest},
		{"-99999999999999999999999", lowest},
	};
	for (const auto &row : table) {
		EXPECT_EQ(parse_decimal(row.text), row.number) << row.text;
	}
}

TEST(Text, HexadecimalNumbersStopAtTheSameLimits)
{
	EXPECT_EQ(parse_hexadecimal("01000000"), 16777216);
	EXPECT_EQ(parse_hexadecimal("0x1f"), 31);
	EXPECT_EQ(parse_hexadecimal("7fffffff"), highest);
	EXPECT_EQ(parse_hexadecimal("80000000"), highest);
	EXPECT_EQ(parse_hexadecimal("ffffffff"), highest);
	EXPECT_EQ(parse_hexadecimal("-80000001"), lowest);
	EXPECT_EQ(parse_hexadecimal("size"), 0);
	EXPECT_EQ(parse_hexadecimal(""), 0);
}

TEST(Text, MillisecondsWrapAtThirtyTwoBits)
{
	EXPECT_EQ(seconds_to_milliseconds(0), 0);
	EXPECT_EQ(seconds_to_milliseconds(30), 30000);
	EXPECT_EQ(seconds_to_milliseconds(-1), -1000);
	EXPECT_EQ(seconds_to_milliseconds(2147483), 2147483000);
	EXPECT_EQ(seconds_to_milliseconds(2147484), -2147483296);
	EXPECT_EQ(seconds_to_milliseconds(4294968), 704);
	EXPECT_EQ(seconds_to_milliseconds(highest), -1000);
	EXPECT_EQ(seconds_to_milliseconds(lowest), 0);
}

TEST(Text, CopyIsCutTerminatedAndPaddedWithZeros)
{
	const auto copied = [](const char *text) {
		std::string field(5, '#');
		copy_text(field.data(), field.size(), text);
		return field;
	};
	EXPECT_EQ(copied("abcdef"), std::string("abcd\0", 5));
	EXPECT_EQ(copied("abcd"), std::string("abcd\0", 5));
	EXPECT_EQ(copied("x"), std::string("x\0\0\0\0", 5));
	EXPECT_EQ(copied(""), std::string(5, '\0'));
}

TEST(Text, OneLineFeedIsStripped)
{
	const struct {
		const char *before;
		const char *after;
	} table[] = {
		{"AB\n", "AB"},	  {"AB\r\n", "AB\r"}, {"AB\n\n", "AB\n"}, {"AB", "AB"},
		{"A\nB", "A\nB"}, {"\n", ""},	      {"", ""},		  {"AB\n ", "AB\n "},
	};
	for (const auto &row : table) {
		char text[8] = {};
		copy_text(text, sizeof(text), row.before);
		strip_line_feed(text);
		EXPECT_STREQ(text, row.after);
	}
}

TEST(Text, StrippingAnEmptyTextTouchesNothingBeforeIt)
{
	char text[] = "A\n";
	strip_line_feed(text + 2);
	EXPECT_STREQ(text, "A\n");
}

TEST(Text, OnlyAsciiLettersAreUpperCased)
{
	char text[] = "vendor,Model-x_9 \xc3\xa4z{";
	upper_case(text);
	EXPECT_STREQ(text, "VENDOR,MODEL-X_9 \xc3\xa4Z{");
}

TEST(Text, FormattingTellsWhetherTheTextFitted)
{
	char buffer[6];
	EXPECT_TRUE(format_text(buffer, sizeof(buffer), "%s", "abcde"));
	EXPECT_STREQ(buffer, "abcde");
	EXPECT_FALSE(format_text(buffer, sizeof(buffer), "%s", "abcdef"));
	EXPECT_STREQ(buffer, "abcde");
	EXPECT_TRUE(format_text(buffer, sizeof(buffer), "%d", -12));
	EXPECT_STREQ(buffer, "-12");
}
