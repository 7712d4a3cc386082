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
	std::uint32_t magic = 0x27051956;
	std::uint32_t time = 0;
	std::uint32_t size = 0;
	std::uint32_t load_address = 0x80008000;
	std::uint32_t entry_point = 0x80008040;
	std::uint8_t system = 5, architecture = 2, type = 2, compression = 0;
	std::string name = "MODEL-X"; // cut or zero-padded to 32 bytes
};
std::string build_uimage(std::string_view payload, UimageHeader header = {});
void seal_uimage(std::string &image);
void flip_bit(std::string &image, std::size_t offset);

// The JSON that the firmware's build appends; an empty custom ID leaves the member out.
std::string metadata_json(const std::vector<std::string> &devices, std::string_view customid = {});
// The image with metadata appended by `fwtool -I`, or a signature by `fwtool -S`.
std::string with_metadata(std::string_view image, std::string_view json);
std::string with_signature(std::string_view image, std::string_view signature);

// `count` bytes that look random and are the same each time for the same seed.
std::string noise(std::size_t count, std::uint32_t seed = 1);

// A ZIP archive, put together here so that no library reads what it wrote itself.
struct ZipMember {
	std::string name;
	std::string content = {};
	bool deflate = true;
};
std::string make_zip(const std::vector<ZipMember> &members);

} // namespace router_test
