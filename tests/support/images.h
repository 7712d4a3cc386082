// SPDX-License-Identifier: ISC
// Firmware images: good ones made by the real `mkimage` and `fwtool`, broken ones from a header
// built here field by field. Returns bytes; the caller writes them where they are needed.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace router_test
{

// A legacy uImage by mkimage: `name` (at most 32 characters) is the model text in its header.
// Throws std::runtime_error when mkimage fails.
struct UimageOptions {
	std::string name = "MODEL-X";
	// Different, so that the data CRC counts; equal ones ask for metadata instead.
	std::uint32_t load_address = 0x80008000;
	std::uint32_t entry_point = 0x80008040;
	std::string type = "kernel";
};
std::string make_uimage(std::string_view payload, const UimageOptions &options = {});

// The same format by hand, for headers that mkimage would refuse. CRCs are right unless changed
// afterwards; `seal_uimage` recomputes the header CRC after a change.
struct UimageHeader {
	std::uint32_t load_address = 0x80008000;
	std::uint32_t entry_point = 0x80008040;
	std::string name = "MODEL-X"; // cut or zero-padded to 32 bytes
};
std::string build_uimage(std::string_view payload, UimageHeader header = {});
void seal_uimage(std::string &image);
void flip_bit(std::string &image, std::size_t offset);

// The JSON that the firmware's build appends; an empty custom ID leaves the member out.
std::string metadata_json(const std::vector<std::string> &devices, std::string_view customid = {});
// The image with metadata appended by `fwtool -I`.
std::string with_metadata(std::string_view image, std::string_view json);

// `count` bytes that look random and are the same each time for the same seed.
std::string noise(std::size_t count, std::uint32_t seed = 1);

} // namespace router_test
