// SPDX-License-Identifier: ISC
// What the tests of the image check share: a firmware file in /tmp, a board whose product name the
// test sets, the log, and a look at what fwtool was asked. For this folder only.
#pragma once

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/records.h"
#include "support/debug_fixture.h"
#include "support/images.h"
#include "verify/image.h"
#include "verify/metadata.h"

namespace router_test
{

// Where things are in a U-Boot legacy image.
inline constexpr std::size_t header_size = 64;
inline constexpr std::size_t header_crc_offset = 4;
inline constexpr std::size_t load_address_offset = 16;
inline constexpr std::size_t data_crc_offset = 24;
inline constexpr std::size_t name_offset = 32;

inline constexpr const char *fwtool_path = "/usr/bin/fwtool";
inline constexpr const char *real_fwtool_path = "/usr/bin/fwtool.real";
inline constexpr const char *firmware_path = "/tmp/firmware.bin";
inline constexpr const char *side_file = "/tmp/firmware.bin.signature";

// What the log says, and what check_signature_model returns.
inline constexpr const char *damaged_text =
	"Error on reading signature, possibly firmware is damaged";
inline constexpr const char *no_customid_text = "Error on reading customid";
inline constexpr const char *no_model_text = "Error on reading model via fwtool";
inline constexpr const char *no_model_name_text = "Error on reading fw_model_name";
inline constexpr int extracted = 0;
inline constexpr int no_use = -2;

// As long as a partition's name may be.
inline const std::string name_of_31 = "abcdefghijklmnopqrstuvwxyz01234";

// The longest path whose fwtool command fits its 256 bytes.
inline constexpr std::size_t longest_path = 112;

// An entry point equal to the load address asks for metadata, another one for the data CRC.
inline constexpr std::uint32_t same_address = 0x80008000;
inline constexpr std::uint32_t other_address = same_address + 64;

// A path in /tmp of so many characters.
inline std::string path_of_length(std::size_t length)
{
	const std::string folder = "/tmp/";
	return folder + std::string(length - folder.size(), 'p');
}

inline void write_bytes(const std::string &path, std::string_view bytes)
{
	std::ofstream stream(path, std::ios::binary);
	stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
	ASSERT_TRUE(stream.good()) << path;
}

// system() then runs its command, but cannot learn how it ended, and returns -1.
class IgnoredChildren
{
public:
	IgnoredChildren() : previous_(signal(SIGCHLD, SIG_IGN))
	{
	}
	~IgnoredChildren()
	{
		signal(SIGCHLD, previous_);
	}
	IgnoredChildren(const IgnoredChildren &) = delete;

private:
	void (*previous_)(int);
};

class FirmwareFixture : public DebugFixture
{
protected:
	using Texts = std::vector<std::string>;

	void SetUp() override
	{
		DebugFixture::SetUp();
		set_remembered_model("");
		files.install_tool("/usr/bin/ubus", "cat /etc/router/board.json");
		set_product_name("Model-X");
	}

	void set_product_name(const std::string &name)
	{
		files.set_board("{ \"product_name\": \"" + name + "\" }");
	}

	static void set_remembered_model(std::string_view text)
	{
		std::memset(fwupdate::fw_model_name, 0, fwupdate::MODEL_NAME_SIZE);
		text.copy(fwupdate::fw_model_name, fwupdate::MODEL_NAME_SIZE);
	}

	// Up to the terminator, if there is one in the 32 bytes.
	static std::string remembered_model()
	{
		return {fwupdate::fw_model_name,
			strnlen(fwupdate::fw_model_name, fwupdate::MODEL_NAME_SIZE)};
	}

	static int verify(std::string_view image)
	{
		write_bytes(firmware_path, image);
		return fwupdate::verify_image(firmware_path);
	}

	// Everything logged since the last call.
	Texts logged()
	{
		const Texts texts = syslog.texts();
		syslog.clear();
		return texts;
	}

	// The real fwtool behind a script that writes its calls down.
	void record_fwtool(const std::string &before = "")
	{
		files.write(real_fwtool_path, read_file(fwtool_path), 0755);
		files.install_recording_tool(fwtool_path,
					     before + "\nexec " + real_fwtool_path + " \"$@\"");
	}

	// What fwtool was asked to extract. Tests use the same tool to append metadata.
	std::vector<Texts> extractions() const
	{
		std::vector<Texts> calls = files.tool_calls(fwtool_path);
		std::erase_if(calls, [](const Texts &call) { return call.at(1) != "-i"; });
		return calls;
	}

	static Texts extraction(const std::string &path)
	{
		return {fwtool_path, "-i", path + ".signature", path};
	}
};

} // namespace router_test
