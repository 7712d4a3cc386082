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

TEST_F(ModelMatch, TakesOnlyAnEmptyModelWhenThereIsNoProductName)
{
	files.set_board("{}");
	EXPECT_EQ(model_matches(""), 1);
	EXPECT_EQ(model_matches("[77]"), 1);
	EXPECT_EQ(model_matches("ABC"), 0);
	EXPECT_EQ(model_matches(" "), 0);
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
	const struct {
		ImageCheck code;
		int number;
		const char *text;
	} cases[] = {
		{IMAGE_NO_PARTITION, -10, "Can't get parition name"},
		{IMAGE_BAD_MODEL, -9, "Bad Model"},
		{IMAGE_TOO_BIG, -8, "Big Image"},
		{IMAGE_BAD_CHECKSUM, -7, "Bad Image checksum"},
		{IMAGE_BAD_HEADER, -6, "Bad Header checksum"},
		{IMAGE_BAD_MAGIC, -5, "Bad Magic Number"},
		{IMAGE_NOT_MAPPED, -4, "Can't mmap image"},
		{IMAGE_NOT_STATTED, -3, "Can't stat image"},
		{IMAGE_NOT_OPENED, -2, "Can't open image"},
		{IMAGE_GOOD, 0, "Unknown"},
	};
	for (const auto &row : cases) {
		EXPECT_EQ(static_cast<int>(row.code), row.number);
		EXPECT_STREQ(image_check_text(row.code), row.text);
	}
}

TEST(ImageCheckText, IsUnknownForOtherNumbers)
{
	using Limits = std::numeric_limits<int>;
	for (const int code : {0, -1, -11, -12, 1, 2, 10, 256, Limits::min(), Limits::max()}) {
		SCOPED_TRACE(code);
		EXPECT_STREQ(image_check_text(code), "Unknown");
	}
}
