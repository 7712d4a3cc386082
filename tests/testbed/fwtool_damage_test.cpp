// SPDX-License-Identifier: ISC
#include "firmware_maker.h"

using namespace firmware;
using namespace std::string_literals;

namespace
{

class FwToolDamage : public FwTool
{
};

TEST_F(FwToolDamage, FindsNothingWithoutATrailer)
{
	const std::string missing = "Data not found";
	expect_failure("-i", image, missing, "plain image");
	expect_failure("-s", image, missing, "plain image");
	expect_failure("-i", with_metadata(image) + "x", missing, "something follows");
	expect_failure("-i", with_metadata(image).substr(1), "CRC error", "first byte missing");
	expect_failure("-i", with_metadata(image).substr(0, image.size() + 20), missing,
		       "end missing");
	expect_failure("-i", with_signature(image, "S"), missing, "signature only");
	expect_failure("-s", with_metadata(image), missing, "metadata only");
	expect_failure("-i", with_chunk(image, {.content = header + json, .magic = "FWx1"}),
		       missing, "another magic");
	expect_failure("-i", with_chunk(image, {.content = be32(1) + be32(0)}), missing,
		       "unknown version");
}

TEST_F(FwToolDamage, ASignatureUnderMetadataSignsTooLittle)
{
	expect_failure("-s", with_metadata(with_signature(image, "S")), "Data not found", "");
}

TEST_F(FwToolDamage, FilesWithoutRoomForATrailerAreTooShort)
{
	for (const std::size_t size : {0, 1, 15, 16}) {
		expect_failure("-i", std::string(size, 'F'), "File too short",
			       std::to_string(size));
	}
	const std::string bare = with_metadata("");
	expect_failure("-i", bare, "File too short", "no image");
	expect_failure("-i", bare.substr(bare.size() - trailer_size), "File too short",
		       "only a trailer");
}

TEST_F(FwToolDamage, RefusesAWrongCrc)
{
	std::string changed = with_metadata(image);
	changed[5] ^= 1;
	expect_failure("-i", changed, "CRC error", "image changed");
	changed = with_metadata(image);
	changed[image.size() + header_size] ^= 1;
	expect_failure("-i", changed, "CRC error", "metadata changed");
	expect_failure("-i", with_chunk(image, {.content = header + json, .crc_damage = 1}),
		       "CRC error", "CRC changed");
	expect_failure("-i",
		       with_chunk(with_metadata(image),
				  {.content = "S", .type = 0, .crc_damage = 0x80000000}),
		       "CRC error", "signature above changed");
	const Chunk inverted = {.content = header + json, .crc_damage = 0xffffffff};
	expect_failure("-i", with_chunk(image, inverted), "CRC error", "CRC inverted");
}

TEST_F(FwToolDamage, RefusesSizesThatLie)
{
	const Chunk metadata = {.content = header + json};
	const auto size = static_cast<std::uint32_t>(metadata.content.size() + trailer_size);
	const std::uint32_t lies[] = {0,	  1,	      7,	  15,	     16,
				      23,	  32785,      65535,	  65536,     0x01000000,
				      0x7fffffff, 0x80000000, 0xfffffff0, 0xffffffff};
	for (const std::uint32_t lie : lies) {
		Chunk lying = metadata;
		lying.size_lie = lie - size;
		expect_failure("-i", with_chunk(image, lying), "Size error", std::to_string(lie));
	}
	const auto whole = static_cast<std::uint32_t>(image.size()) + size;
	for (const std::uint32_t lie : {whole, whole + 1, 32784U}) {
		Chunk lying = metadata;
		lying.size_lie = lie - size;
		expect_failure("-i", with_chunk(image, lying), "File too short",
			       std::to_string(lie));
	}
	for (const std::uint32_t lie : {0U, 15U, 0xffffffffU}) {
		Chunk lying = {.content = "S", .type = 0, .size_lie = lie - 17};
		expect_failure("-s", with_chunk(image, lying), "Size error", std::to_string(lie));
	}
}

TEST_F(FwToolDamage, AFileFullOfTrailersTakesNoLongerThanOthers)
{
	std::string firmware = image;
	for (int i = 0; i < 300; i++) {
		firmware = with_chunk(firmware, {.content = "", .type = 2});
	}
	expect_failure("-i", firmware, "Data not found", "300 chunks");
	// Size 16 each, no CRC right: peeling all of a large file must not check all of them.
	std::string trailers;
	const std::string trailer = "FWx0" + be32(0) + "\2\0\0\0"s + be32(trailer_size);
	while (trailers.size() < (16 << 20)) {
		trailers += trailer;
	}
	expect_failure("-i", trailers, "CRC error", "16 MiB of trailers");
}

} // namespace
