// SPDX-License-Identifier: ISC
// A firmware file, as it was downloaded or named by a caller. The first byte says whether the CRC
// of the header (bit 0) and of the data (bit 1) are put right, without which hardly any input would
// get past them, and how fwtool ends (bits 2 and 3); the rest is the file.
#include <algorithm>
#include <string>
#include <zlib.h>

#include "base/records.h"
#include "fuzz_input.h"
#include "fuzz_target.h"
#include "outside.h"
#include "verify/image.h"

namespace
{

using namespace fuzz;

constexpr std::size_t header_size = 64;
constexpr std::size_t header_crc_at = 4;
constexpr std::size_t data_crc_at = 24;
constexpr std::size_t name_at = 32;
constexpr std::string_view magic = "\x27\x05\x19\x56";
constexpr int endings[] = {0, EXIT_STATUS_1, KILLED, NOT_RUN};

std::string crc_of(std::string_view bytes)
{
	const uLong crc = crc32(0, reinterpret_cast<const Bytef *>(bytes.data()),
				static_cast<uInt>(bytes.size()));
	std::string text;
	for (int shift = 24; shift >= 0; shift -= 8) {
		text += static_cast<char>(crc >> shift & 0xff);
	}
	return text;
}

std::string header_crc_of(const std::string &image)
{
	std::string header = image.substr(0, header_size);
	header.replace(header_crc_at, 4, 4, '\0');
	return crc_of(header);
}

std::string repaired(std::string image, bool header, bool data)
{
	if (image.size() < header_size) {
		return image;
	}
	if (data) {
		image.replace(data_crc_at, 4, crc_of(std::string_view(image).substr(header_size)));
	}
	if (header) {
		image.replace(header_crc_at, 4, header_crc_of(image));
	}
	return image;
}

// A U-Boot image that passes has a right header CRC and this router's name, and, unless
// fwtool vouched for it, a right data CRC.
void check_good(const std::string &image)
{
	if (!image.starts_with(magic)) {
		return;
	}
	std::string padded = image;
	padded.resize(std::max(image.size(), header_size));
	require(padded.substr(header_crc_at, 4) == header_crc_of(padded), "the header's CRC");
	const bool with_fwtool = padded.substr(16, 4) == padded.substr(20, 4) &&
				 padded.substr(60, 4) == std::string(4, '\0');
	require(with_fwtool || padded.substr(data_crc_at, 4) == crc_of(padded.substr(header_size)),
		"the data's CRC");
	std::string name(padded.c_str() + name_at, 7);
	std::transform(name.begin(), name.end(), name.begin(),
		       [](unsigned char letter) { return std::toupper(letter); });
	require(name == "MODEL-X", "the model");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	reset_daemon();
	Input input(data, size);
	const std::uint8_t kind = input.take_byte();
	const std::string image =
		repaired(std::string(input.take_rest()), (kind & 1) != 0, (kind & 2) != 0);
	outside.fwtool_ending = endings[kind >> 2 & 3];
	outside.image = image;

	const int code = fwupdate::verify_image("/tmp/fwupdate.bin");
	switch (code) {
	case fwupdate::IMAGE_GOOD:
		check_good(image);
		break;
	case fwupdate::IMAGE_NOT_MAPPED:
		require(image.empty(), "only an empty file cannot be mapped");
		break;
	case fwupdate::IMAGE_BAD_MAGIC:
	case fwupdate::IMAGE_BAD_HEADER:
	case fwupdate::IMAGE_BAD_CHECKSUM:
	case fwupdate::IMAGE_BAD_MODEL:
		break;
	default:
		require(false, "no other code");
	}
	check_daemon();
	return 0;
}
