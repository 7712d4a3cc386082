// SPDX-License-Identifier: ISC
#include "support/images.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <stdexcept>
#include <zlib.h>

#include "support/process.h"
#include "support/router_files.h"

namespace router_test
{
namespace
{

constexpr std::size_t uimage_header_size = 64;
constexpr std::size_t uimage_header_crc_offset = 4;

std::uint32_t crc_of(std::string_view bytes)
{
	return static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef *>(bytes.data()),
						static_cast<uInt>(bytes.size())));
}

std::string big_endian(std::uint32_t value)
{
	std::string bytes;
	for (int shift = 24; shift >= 0; shift -= 8) {
		bytes += static_cast<char>(value >> shift & 0xffU);
	}
	return bytes;
}

std::string hexadecimal(std::uint32_t value)
{
	char text[16];
	std::snprintf(text, sizeof(text), "0x%08x", value);
	return text;
}

// A folder of one call's own, gone at its end.
class WorkFolder
{
public:
	WorkFolder()
	{
		char pattern[] = "/tmp/image-XXXXXX";
		if (mkdtemp(pattern) == nullptr) {
			throw std::runtime_error("cannot make a folder in /tmp");
		}
		path_ = pattern;
	}
	~WorkFolder()
	{
		std::error_code ignored;
		std::filesystem::remove_all(path_, ignored);
	}
	WorkFolder(const WorkFolder &) = delete;
	WorkFolder &operator=(const WorkFolder &) = delete;

	std::string file(const char *name) const
	{
		return path_ + "/" + name;
	}
	std::string write(const char *name, std::string_view content) const
	{
		std::ofstream stream(file(name), std::ios::binary);
		stream.write(content.data(), static_cast<std::streamsize>(content.size()));
		return file(name);
	}

private:
	std::string path_;
};

void run_tool(const std::vector<std::string> &words)
{
	RunResult result = run(words);
	if (!result.status.success()) {
		throw std::runtime_error(words[0] + " failed: " + result.output + result.errors);
	}
}

} // namespace

std::string make_uimage(std::string_view payload, const UimageOptions &options)
{
	WorkFolder folder;
	std::string image = folder.file("image");
	run_tool({"mkimage", "-A", "arm", "-O", "linux", "-T", options.type, "-C", "none", "-a",
		  hexadecimal(options.load_address), "-e", hexadecimal(options.entry_point), "-n",
		  options.name, "-d", folder.write("payload", payload), image});
	return read_file(image);
}

std::string build_uimage(std::string_view payload, UimageHeader header)
{
	constexpr std::size_t name_size = 32;
	constexpr std::uint32_t magic = 0x27051956;
	constexpr std::uint32_t kernel_for_arm = 0x05020200; // that of Linux, not compressed
	header.name.resize(name_size);
	const auto size = static_cast<std::uint32_t>(payload.size());
	std::string image;
	for (const std::uint32_t word : {magic, 0U, 0U, size, header.load_address,
					 header.entry_point, crc_of(payload), kernel_for_arm}) {
		image += big_endian(word);
	}
	image += header.name;
	image += payload;
	seal_uimage(image);
	return image;
}

void seal_uimage(std::string &image)
{
	image.replace(uimage_header_crc_offset, 4, big_endian(0));
	std::uint32_t crc = crc_of(std::string_view(image).substr(0, uimage_header_size));
	image.replace(uimage_header_crc_offset, 4, big_endian(crc));
}

void flip_bit(std::string &image, std::size_t offset)
{
	image.at(offset) = static_cast<char>(image.at(offset) ^ 1);
}

std::string metadata_json(const std::vector<std::string> &devices, std::string_view customid)
{
	std::string list;
	for (const std::string &device : devices) {
		list += (list.empty() ? "\"" : ",\"") + device + "\"";
	}
	std::string custom;
	if (!customid.empty()) {
		custom = ", \"customid\": \"" + std::string(customid) + "\"";
	}
	return R"({ "metadata_version": "1.1", "compat_version": "1.0", "supported_devices":[)" +
	       list + R"(], "version": { "dist": "RouterOS", "version": "24.10", )" +
	       R"("revision": "r1234", "target": "generic", "board": "generic")" + custom + " } }";
}

std::string with_metadata(std::string_view image, std::string_view json)
{
	WorkFolder folder;
	std::string file = folder.write("image", image);
	run_tool({"fwtool", "-I", folder.write("content", json), file});
	return read_file(file);
}

std::string noise(std::size_t count, std::uint32_t seed)
{
	std::mt19937 generator(seed);
	std::string bytes(count, '\0');
	for (char &byte : bytes) {
		byte = static_cast<char>(generator() & 0xffU);
	}
	return bytes;
}

} // namespace router_test
