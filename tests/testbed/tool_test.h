// SPDX-License-Identifier: ISC
// For the tests that run a built tool of the simulated router: its path and a folder of the test's
// own, gone with the test.
#pragma once

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "support/process.h"

class ToolTest : public testing::Test
{
public:
	ToolTest() : folder_(testing::TempDir() + "tool-XXXXXX")
	{
		if (mkdtemp(folder_.data()) == nullptr) {
			throw std::runtime_error("cannot make the folder " + folder_);
		}
	}
	~ToolTest() override
	{
		std::error_code ignored;
		std::filesystem::remove_all(folder_, ignored);
	}

protected:
	static std::string tool(std::string_view name)
	{
		return TESTBED_TOOLS_DIR "/" + std::string(name);
	}

	// A path in the test's folder.
	std::string path(std::string_view name = "") const
	{
		return folder_ + "/" + std::string(name);
	}

	// Returns the path.
	std::string write(std::string_view name, std::string_view content) const
	{
		std::ofstream(path(name), std::ios::binary) << content;
		return path(name);
	}

	std::string read(std::string_view name) const
	{
		std::ostringstream content;
		content << std::ifstream(path(name), std::ios::binary).rdbuf();
		return content.str();
	}

	bool exists(std::string_view name) const
	{
		return std::filesystem::exists(path(name));
	}

private:
	std::string folder_;
};
