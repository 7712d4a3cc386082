// SPDX-License-Identifier: ISC
// A file that is no U-Boot legacy image: its metadata decide, through fwtool.
#include "firmware_fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr std::size_t name_tail_offset = 60;

class Metadata : public FirmwareFixture
{
protected:
	// Address words that differ: fwtool runs once.
	static std::string plain(const std::vector<std::string> &devices = {"MODEL-X"},
				 std::string_view customid = "77")
	{
		return with_metadata(noise(500), metadata_json(devices, customid));
	}

	// Read as a header it asks for a second run.
	static std::string zeros()
	{
		return with_metadata(std::string(500, '\0'), metadata_json({"MODEL-X"}, "77"));
	}
};

} // namespace

TEST_F(Metadata, NamingThisModelMakeAGoodFile)
{
	for (const char *model : {"MODEL-X", "model-x", "Model-X"}) {
		SCOPED_TRACE(model);
		EXPECT_EQ(verify(plain({model})), IMAGE_GOOD);
		EXPECT_EQ(remembered_model(), std::string(model) + "[77]");
		EXPECT_FALSE(exists(side_file));
		EXPECT_EQ(logged(), Texts{});
	}
}

TEST_F(Metadata, NeedNoCustomId)
{
	EXPECT_EQ(verify(plain({"MODEL-X"}, "")), IMAGE_GOOD);
	EXPECT_EQ(remembered_model(), "MODEL-X");
	EXPECT_EQ(logged(), Texts{no_customid_text});
}

TEST_F(Metadata, NamingAnotherModelMakeABadModel)
{
	const std::vector<std::vector<std::string>> lists = {
		{"MODEL-Y"},
		{"MODEL"},
		{"MODEL-X2"},
		{"MODEL-X", "MODEL-Y"},
		{"MODEL-Y", "MODEL-X"},
		{"MODEL-X", "MODEL-X"},
	};
	for (const auto &list : lists) {
		SCOPED_TRACE(testing::PrintToString(list));
		EXPECT_EQ(verify(plain(list)), IMAGE_BAD_MODEL);
		EXPECT_FALSE(exists(side_file));
	}
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(Metadata, AreABadMagicWhenMissingOrDamaged)
{
	std::string wrong_crc = plain();
	flip_bit(wrong_crc, 10);
	std::string cut = plain();
	cut.pop_back();
	for (const std::string &file :
	     {noise(500), noise(10), std::string("x"), std::string(64, '\0'), wrong_crc, cut,
	      plain() + "x", std::string("\x27\x05\x19", 3)}) {
		SCOPED_TRACE(file.size());
		EXPECT_EQ(verify(file), IMAGE_BAD_MAGIC);
		EXPECT_FALSE(exists(side_file));
	}
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(Metadata, AreABadMagicWhenFwtoolIsMissingOrFails)
{
	const std::string file = plain();
	files.remove(fwtool_path);
	EXPECT_EQ(verify(file), IMAGE_BAD_MAGIC);
	files.write(fwtool_path, "#!/bin/sh\nexit 0\n", 0644);
	EXPECT_EQ(verify(file), IMAGE_BAD_MAGIC);
	files.install_tool(fwtool_path, "echo {} >\"$2\"; exit 2");
	EXPECT_EQ(verify(file), IMAGE_BAD_MAGIC);
	EXPECT_FALSE(exists(side_file));
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(Metadata, AreAskedForOnceAndNoChecksumIsEnforced)
{
	record_fwtool();
	EXPECT_EQ(verify(plain()), IMAGE_GOOD);
	EXPECT_EQ(extractions(), std::vector<Texts>{extraction(firmware_path)});
	// A fwtool that does not mind damage is believed.
	files.install_tool(fwtool_path, R"(echo '{"supported_devices":["MODEL-X"]}' >"$2")");
	EXPECT_EQ(verify(noise(500)), IMAGE_GOOD);
	EXPECT_FALSE(exists(side_file));
}

TEST_F(Metadata, AreAskedForTwiceWithEqualWordsAndAZeroTail)
{
	record_fwtool();
	EXPECT_EQ(verify(zeros()), IMAGE_GOOD);
	const Texts once = extraction(firmware_path);
	EXPECT_EQ(extractions(), (std::vector<Texts>{once, once}));
	EXPECT_FALSE(exists(side_file));
	EXPECT_EQ(logged(), Texts{});
}

TEST_F(Metadata, AreAskedForOnceWhenOneByteDiffers)
{
	record_fwtool();
	std::size_t runs = 0;
	for (const std::size_t offset :
	     {load_address_offset, load_address_offset + 3, load_address_offset + 4,
	      load_address_offset + 7, name_tail_offset, name_tail_offset + 3}) {
		SCOPED_TRACE(offset);
		std::string file(500, '\0');
		file[offset] = 1;
		EXPECT_EQ(verify(with_metadata(file, metadata_json({"MODEL-X"}))), IMAGE_GOOD);
		EXPECT_EQ(extractions().size(), ++runs);
	}
}

TEST_F(Metadata, AreABadChecksumWhenOnlyTheSecondRunFails)
{
	const std::string file = zeros();
	record_fwtool("if [ -e /tmp/ran ]; then echo second >\"$2\"; exit 3; fi; : >/tmp/ran");
	EXPECT_EQ(verify(file), IMAGE_BAD_CHECKSUM);
	EXPECT_EQ(logged(), Texts{damaged_text});
	EXPECT_EQ(read_file(side_file), "second\n");
	EXPECT_EQ(extractions().size(), 2U);
}
