// SPDX-License-Identifier: ISC
// Changes files of the simulated router and puts everything back when it goes out of scope, so
// that each test meets the same router. Only for use inside `testbed/router`, where / is a tmpfs.
// A symbolic link is replaced, never written through; a bind-mounted file is written in place.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "support/files.h"
#include "support/wait.h"

namespace router_test
{

// The /proc/mtd text of these partitions, as the kernel writes it.
struct MtdPartition {
	std::string name;
	std::uint32_t size = 0;
	std::uint32_t erase_size = 0x10000;
};
std::string mtd_listing(const std::vector<MtdPartition> &partitions);

class RouterFiles
{
public:
	RouterFiles() = default;
	~RouterFiles(); // restores in reverse order
	RouterFiles(const RouterFiles &) = delete;

	// Each throws std::runtime_error when the router refuses.
	void write(const std::string &path, std::string_view content, unsigned mode = 0644);
	void remove(const std::string &path);
	void restore();

	void set_mtd(const std::vector<MtdPartition> &partitions);
	void set_board(std::string_view json); // /etc/router/board.json, read at each call
	void set_wan(std::string_view json);   // /etc/router/wan.json
	// uci's system.@system[0].fwupdate_xml_url; an empty text removes the option.
	void set_manifest_url(std::string_view url);
	void set_boot_environment(const std::vector<std::string> &settings); // NAME=VALUE each

	// A shell script in the place of a tool. `body` follows the #!/bin/sh line.
	void install_tool(const std::string &path, std::string_view body);
	// The same, writing down each call first; see `tool_calls`.
	void install_recording_tool(const std::string &path, std::string_view body = "exit 0");
	// The words of each call so far, argv[0] as the caller wrote it.
	std::vector<std::vector<std::string>> tool_calls(const std::string &path) const;
	bool wait_for_tool_calls(const std::string &path, std::size_t count,
				 milliseconds limit = wait_limit()) const;

	// Gives /tmp another size (all its content must fit); restored at the end.
	void set_tmp_size(std::uint64_t bytes);
	// Fills /tmp with a file until only `bytes_left` are free; returns that file's path.
	std::string fill_tmp(std::uint64_t bytes_left);

private:
	struct Original {
		std::string path;
		enum class Kind { absent, file, link } kind = Kind::absent;
		std::string content = {}; // bytes, or the link's target
		unsigned mode = 0;
	};
	void keep_original(const std::string &path);
	std::vector<Original> originals_;
	std::optional<std::uint64_t> tmp_size_;
};

} // namespace router_test
