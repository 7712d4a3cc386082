// SPDX-License-Identifier: ISC
// The U-Boot legacy image whose addresses are equal and whose name ends in zeros: fwtool decides
// instead of the data CRC.
#include "firmware_fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr const char *not_run_text = "Error on checking signature via fwtool";

class UimageForFwtool : public FirmwareFixture
{
protected:
	// Left to fwtool: equal addresses and a name that ends in zeros.
	static std::string for_fwtool(const std::string &name = "MODEL-X")
	{
		return build_uimage(noise(1000), {.entry_point = same_address, .name = name});
	}

	// With any of these bytes of its header changed the image's own data CRC decides.
	void expect_data_crc_decides(std::size_t first, std::size_t end)
	{
		record_fwtool();
		for (std::size_t offset = first; offset < end; offset++) {
			SCOPED_TRACE(offset);
			std::string image = for_fwtool();
			flip_bit(image, offset);
			seal_uimage(image);
			EXPECT_EQ(verify(image), IMAGE_GOOD);
			EXPECT_EQ(verify(image + "x"), IMAGE_BAD_CHECKSUM);
		}
		EXPECT_TRUE(extractions().empty());
	}
};

} // namespace

TEST_F(UimageForFwtool, IsGivenToFwtoolForEqualAddressesAndAZeroNameTail)
{
	record_fwtool();
	const std::string image = for_fwtool();
	EXPECT_EQ(verify(with_metadata(image, metadata_json({"x"}))), IMAGE_GOOD);
	EXPECT_EQ(extractions(), std::vector<Texts>{extraction(firmware_path)});
	EXPECT_FALSE(exists(side_file));
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(UimageForFwtool, WithoutMetadataIsABadChecksumWhereFwtoolDecides)
{
	// The data CRC is right, and does not help.
	EXPECT_EQ(verify(for_fwtool()), IMAGE_BAD_CHECKSUM);
	EXPECT_EQ(logged(), Texts{damaged_text});
	EXPECT_TRUE(exists(side_file)) << "what fwtool wrote stays";
}

TEST_F(UimageForFwtool, MayHaveAWrongDataCrcWhereFwtoolDecides)
{
	std::string image = for_fwtool();
	flip_bit(image, data_crc_offset);
	seal_uimage(image);
	flip_bit(image, header_size);
	EXPECT_EQ(verify(with_metadata(image, metadata_json({"x"}))), IMAGE_GOOD);
}

TEST_F(UimageForFwtool, DamagedBehindItsMetadatasCrcIsABadChecksum)
{
	std::string image = with_metadata(for_fwtool(), metadata_json({"x"}));
	flip_bit(image, header_size + 5);
	EXPECT_EQ(verify(image), IMAGE_BAD_CHECKSUM);
	EXPECT_EQ(logged(), Texts{damaged_text});
}

TEST_F(UimageForFwtool, ForAnotherModelIsABadModelWhereFwtoolDecidesToo)
{
	const std::string image = for_fwtool("MODEL-Y");
	EXPECT_EQ(verify(with_metadata(image, metadata_json({"MODEL-X"}))), IMAGE_BAD_MODEL);
	EXPECT_FALSE(exists(side_file));
}

TEST_F(UimageForFwtool, IsGivenToFwtoolUpToANameOf28Characters)
{
	record_fwtool();
	for (const std::size_t length : {28U, 29U}) {
		SCOPED_TRACE(length);
		set_product_name(std::string(length, 'x'));
		EXPECT_EQ(verify(for_fwtool(std::string(length, 'X'))),
			  length == 28U ? IMAGE_BAD_CHECKSUM : IMAGE_GOOD);
	}
	EXPECT_EQ(extractions().size(), 1U);
}

TEST_F(UimageForFwtool, IsABadChecksumWhenFwtoolIsMissingOrFails)
{
	const std::string image = with_metadata(for_fwtool(), metadata_json({"x"}));
	files.remove(fwtool_path);
	EXPECT_EQ(verify(image), IMAGE_BAD_CHECKSUM);
	EXPECT_EQ(logged(), Texts{damaged_text});
	files.write(fwtool_path, "#!/bin/sh\nexit 0\n", 0644);
	EXPECT_EQ(verify(image), IMAGE_BAD_CHECKSUM);
	EXPECT_EQ(logged(), Texts{damaged_text});
	for (const char *status : {"1", "2", "128", "255"}) {
		SCOPED_TRACE(status);
		files.install_tool(fwtool_path, std::string("echo {} >\"$2\"; exit ") + status);
		EXPECT_EQ(verify(image), IMAGE_BAD_CHECKSUM);
		EXPECT_EQ(logged(), Texts{damaged_text});
		EXPECT_EQ(read_file(side_file), "{}\n");
	}
}

TEST_F(UimageForFwtool, IsABadChecksumWhenFwtoolCannotBeRun)
{
	const std::string image = with_metadata(for_fwtool(), metadata_json({"x"}));
	const IgnoredChildren ignored;
	EXPECT_EQ(verify(image), IMAGE_BAD_CHECKSUM);
	EXPECT_EQ(logged(), Texts{not_run_text});
}

TEST_F(UimageForFwtool, KeepsToItsDataCrcWhenOneByteOfTheAddressesDiffers)
{
	expect_data_crc_decides(load_address_offset, load_address_offset + 8);
}

TEST_F(UimageForFwtool, KeepsToItsDataCrcWhenOneByteOfTheNameTailIsSet)
{
	// The name's text ends before these.
	expect_data_crc_decides(header_size - 4, header_size);
}
