// SPDX-License-Identifier: ISC
// The model match, and the texts of the image-check codes.
#include "firmware_fixture.h"

#include <limits>

using namespace fwupdate;
using namespace router_test;

namespace
{

class ModelMatch : public FirmwareFixture
{
};

} // namespace

TEST_F(ModelMatch, ComparesTheTextBeforeTheBracketWithTheProductName)
{
	const struct {
		const char *product;
		const char *model;
		int matches;
	} cases[] = {
		{"ABC", "ABC", 1},
		{"ABC", "abc", 1},
		{"abc", "ABC", 1},
		{"aBc", "AbC", 1},
		{"ABC", "ABC[77]", 1},
		{"ABC", "abc[x]", 1},
		{"ABC", "ABC[]", 1},
		{"ABC", "ABC[77]xyz", 1},
		{"ABC", "ABC[7][8]", 1},
		{"ABC", "ABC[]]", 1},
		{"ABC]", "ABC][77", 1},
		{"ABC[77", "ABC[77", 1},
		{"ABC]", "ABC]", 1},
		{"A B", "a b", 1},
		{"ABC,XYZ", "ABC,XYZ", 1},
		{"ABC", "ABC[77", 0},
		{"ABC", "ABC]", 0},
		{"ABC", "ABC77]", 0},
		{"ABC", "AB", 0},
		{"ABC", "ABCD", 0},
		{"ABC", " ABC", 0},
		{"ABC", "ABC ", 0},
		{"ABC", "ABC [77]", 0},
		{"ABC", "[77]", 0},
		{"ABC", "[ABC]", 0},
		{"ABC", "]ABC[77", 0},
		{"ABC", "", 0},
		{"ABC", "ABC,XYZ", 0},
		{"XYZ", "ABC,XYZ", 0},
		{"ABC[77]", "ABC[77]", 0},
		{"ABC[77]", "ABC", 0},
		{"77", "ABC[77]", 0},
		{"ABC", "XYZ", 0},
		{"Model_9.x", "mODEL_9.X", 1},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(std::string(row.product) + " and " + row.model);
		set_product_name(row.product);
		EXPECT_EQ(model_matches(row.model), row.matches);
	}
}

TEST_F(ModelMatch, TakesLettersOfAsciiOnlyAsLetters)
{
	set_product_name("m\xc3\xa4x"); // a umlaut, not to become its capital
	EXPECT_EQ(model_matches("M\xc3\xa4X"), 1);
	EXPECT_EQ(model_matches("M\xc3\x84X"), 0);
}

TEST_F(ModelMatch, TakesOnlyAnEmptyModelWhenThereIsNoProductName)
{
	files.set_board("{}");
	EXPECT_EQ(model_matches(""), 1);
	EXPECT_EQ(model_matches("[77]"), 1);
	EXPECT_EQ(model_matches("ABC"), 0);
	EXPECT_EQ(model_matches(" "), 0);
}

TEST_F(ModelMatch, AsksForTheProductNameEachTime)
{
	set_product_name("ABC");
	EXPECT_EQ(model_matches("ABC"), 1);
	set_product_name("XYZ");
	EXPECT_EQ(model_matches("ABC"), 0);
	EXPECT_EQ(model_matches("XYZ"), 1);
}

TEST_F(ModelMatch, ReadsAtMost31CharactersOfTheProductName)
{
	const std::string name(31, 'X');
	set_product_name(name + "YZ");
	EXPECT_EQ(model_matches(name.c_str()), 1);
	EXPECT_EQ(model_matches(name.substr(1).c_str()), 0);
}

TEST_F(ModelMatch, NeedsNoTerminatorBehindTheModel)
{
	// Nothing but the 32 bytes: a byte more is a finding of the sanitizer.
	const std::vector<char> model(MODEL_NAME_SIZE, 'x');
	EXPECT_EQ(model_matches(model.data()), 0);
	set_product_name(std::string(31, 'X'));
	EXPECT_EQ(model_matches(model.data()), 1);
	set_product_name(std::string(30, 'X'));
	EXPECT_EQ(model_matches(model.data()), 0);
}

TEST(ImageCheckText, NamesEachCode)
{
	EXPECT_STREQ(image_check_text(-10), "Can't get parition name");
	EXPECT_STREQ(image_check_text(-9), "Bad Model");
	EXPECT_STREQ(image_check_text(-8), "Big Image");
	EXPECT_STREQ(image_check_text(-7), "Bad Image checksum");
	EXPECT_STREQ(image_check_text(-6), "Bad Header checksum");
	EXPECT_STREQ(image_check_text(-5), "Bad Magic Number");
	EXPECT_STREQ(image_check_text(-4), "Can't mmap image");
	EXPECT_STREQ(image_check_text(-3), "Can't stat image");
	EXPECT_STREQ(image_check_text(-2), "Can't open image");
}

TEST(ImageCheckText, IsUnknownForOtherNumbers)
{
	using Limits = std::numeric_limits<int>;
	for (const int code : {0, -1, -11, -12, 1, 2, 10, 256, Limits::min(), Limits::max()}) {
		SCOPED_TRACE(code);
		EXPECT_STREQ(image_check_text(code), "Unknown");
	}
}

TEST(ImageCheckText, HasTheNumbersThatCallersSee)
{
	const struct {
		ImageCheck code;
		int number;
	} cases[] = {
		{IMAGE_GOOD, 0},	   {IMAGE_NOT_OPENED, -2}, {IMAGE_NOT_STATTED, -3},
		{IMAGE_NOT_MAPPED, -4},	   {IMAGE_BAD_MAGIC, -5},  {IMAGE_BAD_HEADER, -6},
		{IMAGE_BAD_CHECKSUM, -7},  {IMAGE_TOO_BIG, -8},	   {IMAGE_BAD_MODEL, -9},
		{IMAGE_NO_PARTITION, -10},
	};
	for (const auto &row : cases) {
		EXPECT_EQ(static_cast<int>(row.code), row.number);
	}
}
