// SPDX-License-Identifier: ISC
// Firmware files made byte by byte, without the tool, and the fixture that runs the tool on them.
#pragma once

#include <cstdint>

#include "tool_test.h"

namespace firmware
{

inline constexpr std::size_t trailer_size = 16;
inline constexpr std::size_t header_size = 8;

inline std::string be32(std::uint32_t value)
{
	std::string bytes;
	for (int shift = 24; shift >= 0; shift -= 8) {
		bytes += static_cast<char>(value >> shift);
	}
	return bytes;
}

// Bit by bit, so that it shares nothing with the tool.
inline std::uint32_t crc(std::string_view bytes)
{
	std::uint32_t value = 0xffffffff;
	for (const char byte : bytes) {
		value ^= static_cast<unsigned char>(byte);
		for (int bit = 0; bit < 8; bit++) {
			value = value >> 1 ^ (value & 1 ? 0xedb88320 : 0);
		}
	}
	return value;
}

struct Chunk {
	std::string content; // header included
	std::uint8_t type = 1;
	std::uint32_t size_lie = 0;   // added to the true size
	std::uint32_t crc_damage = 0; // exclusive or
	std::string magic = "FWx0";
};

inline std::string with_chunk(const std::string &file, const Chunk &chunk)
{
	const std::string covered = file + chunk.content;
	const auto size = static_cast<std::uint32_t>(chunk.content.size() + trailer_size);
	return covered + chunk.magic + be32(crc(covered) ^ chunk.crc_damage) +
	       static_cast<char>(chunk.type) + std::string(3, '\0') + be32(size + chunk.size_lie);
}

inline const std::string header(header_size, '\0');
inline const std::string json = "{ \"metadata_version\": \"1.1\" }\n";
inline const std::string image = "An image of sufficient length; " + std::string(1000, '\xa5');

inline std::string with_metadata(const std::string &file, const std::string &metadata = json)
{
	return with_chunk(file, {.content = header + metadata});
}

inline std::string with_signature(const std::string &file, const std::string &signature)
{
	return with_chunk(file, {.content = signature, .type = 0});
}

} // namespace firmware

class FwTool : public ToolTest
{
protected:
	static router_test::RunResult fwtool(const std::vector<std::string> &options)
	{
		std::vector<std::string> words = {tool("fwtool")};
		words.insert(words.end(), options.begin(), options.end());
		return router_test::run(words);
	}
	router_test::RunResult extract(const std::string &option, const std::string &firmware) const
	{
		return fwtool({option, path("out"), write("firmware", firmware)});
	}

	// A failed run says why, and leaves an empty OUT and the firmware as it was.
	void expect_failure(const std::string &option, const std::string &firmware,
			    const std::string &message, const std::string &what) const
	{
		write("out", "stale");
		const router_test::RunResult result =
			fwtool({"-t", option, path("out"), write("firmware", firmware)});
		EXPECT_EQ(result.status.code, 1) << what;
		EXPECT_EQ(result.errors, message + "\n") << what;
		EXPECT_EQ(result.output, "") << what;
		EXPECT_TRUE(exists("out") && read("out").empty()) << what;
		EXPECT_TRUE(read("firmware") == firmware) << what;
	}
};
