// SPDX-License-Identifier: ISC
// The U-Boot legacy image that is checked by its two CRCs.
#include "firmware_fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

class Uimage : public FirmwareFixture
{
protected:
	static std::string plain(const std::string &name = "MODEL-X")
	{
		return build_uimage(noise(1000), {.entry_point = other_address, .name = name});
	}
};

} // namespace

TEST_F(Uimage, MatchesTheModelInAnyLetterCase)
{
	for (const char *name : {"MODEL-X", "model-x", "Model-x", "model-X[77]", "MODEL-X[]"}) {
		SCOPED_TRACE(name);
		EXPECT_EQ(verify(plain(name)), IMAGE_GOOD);
	}
}

TEST_F(Uimage, ForAnotherModelIsABadModel)
{
	for (const char *name : {"MODEL-Y", "MODEL-X2", "MODEL-", "MODEL-X ", "MODEL-X[77", "",
				 "MODEL-X,MODEL-Y", "[MODEL-X]"}) {
		SCOPED_TRACE(name);
		EXPECT_EQ(verify(plain(name)), IMAGE_BAD_MODEL);
		EXPECT_EQ(remembered_model(), name);
	}
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(Uimage, WithAnEmptyNamePassesWhereTheProductNameCannotBeRead)
{
	files.install_tool("/usr/bin/ubus", "exit 1");
	EXPECT_EQ(verify(plain("")), IMAGE_GOOD);
	EXPECT_EQ(logged(), Texts{"Error on reading cpe_product_name"});
	EXPECT_EQ(verify(plain("MODEL-X")), IMAGE_BAD_MODEL);
}

TEST_F(Uimage, KeepsAllOfANameOf32Characters)
{
	const std::string name = "abcdefghijklmnopqrstuvwxyz012345";
	EXPECT_EQ(verify(plain(name)), IMAGE_BAD_MODEL);
	EXPECT_EQ(std::string(fw_model_name, MODEL_NAME_SIZE), name);
}

TEST_F(Uimage, WithADamagedHeaderIsABadHeader)
{
	const std::string good = plain();
	for (std::size_t offset = header_crc_offset; offset < header_size; offset++) {
		SCOPED_TRACE(offset);
		std::string image = good;
		flip_bit(image, offset);
		EXPECT_EQ(verify(image), IMAGE_BAD_HEADER);
		EXPECT_EQ(remembered_model(), image.substr(name_offset, 32).c_str());
	}
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(Uimage, WithAnotherMagicIsTakenForAFileWithMetadata)
{
	for (std::size_t offset = 0; offset < header_crc_offset; offset++) {
		SCOPED_TRACE(offset);
		std::string image = plain();
		flip_bit(image, offset);
		seal_uimage(image);
		EXPECT_EQ(verify(image), IMAGE_BAD_MAGIC);
	}
}

TEST_F(Uimage, WithDamagedDataIsABadChecksum)
{
	const std::string good = plain();
	const std::string last_cut = good.substr(0, good.size() - 1);
	std::vector<std::string> images = {good + '\0', good + "x", last_cut,
					   good.substr(0, header_size + 1)};
	for (const std::size_t offset : {header_size, good.size() / 2, good.size() - 1}) {
		images.push_back(good);
		flip_bit(images.back(), offset);
	}
	for (std::size_t offset = data_crc_offset; offset < data_crc_offset + 4; offset++) {
		images.push_back(good);
		flip_bit(images.back(), offset);
		seal_uimage(images.back());
	}
	for (const std::string &image : images) {
		SCOPED_TRACE(&image - images.data());
		EXPECT_EQ(verify(image), IMAGE_BAD_CHECKSUM);
	}
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(Uimage, WithoutDataIsGoodWhenItsDataCrcIsZero)
{
	const UimageHeader header = {.entry_point = other_address};
	std::string image = build_uimage("", header);
	EXPECT_EQ(verify(image), IMAGE_GOOD);
	flip_bit(image, data_crc_offset);
	seal_uimage(image);
	EXPECT_EQ(verify(image), IMAGE_BAD_CHECKSUM);
}

TEST_F(Uimage, UnderAHeadersLengthCountsAsPaddedWithZeros)
{
	const UimageHeader header = {.entry_point = other_address};
	const std::string image = build_uimage("", header);
	const std::size_t name_end = name_offset + std::strlen("MODEL-X");
	for (const std::size_t length : {header_size - 1, name_end + 1, name_end}) {
		SCOPED_TRACE(length);
		EXPECT_EQ(verify(image.substr(0, length)), IMAGE_GOOD);
		EXPECT_EQ(remembered_model(), "MODEL-X");
	}
	for (const std::size_t length :
	     {name_end - 1, name_offset, header_crc_offset, header_crc_offset + 2}) {
		SCOPED_TRACE(length);
		EXPECT_EQ(verify(image.substr(0, length)), IMAGE_BAD_HEADER);
	}
	EXPECT_EQ(verify(image.substr(0, header_crc_offset - 1)), IMAGE_BAD_MAGIC);
}
