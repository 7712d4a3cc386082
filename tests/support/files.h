// SPDX-License-Identifier: ISC
// Looking at files: what is there, what is in it, how much room is left. Changes nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace router_test
{

// Throws unless this process runs inside the simulated router.
void require_router();

// Free bytes of the file system that holds the path, as df shows them ("Available").
std::uint64_t free_bytes(const std::string &path);
bool exists(const std::string &path);
// The whole file; an empty text when it cannot be read.
std::string read_file(const std::string &path);
// Names in a folder, sorted, without . and ..
std::vector<std::string> list_folder(const std::string &path);

// The parts between the separators; a last empty part is left out.
std::vector<std::string> split_text(const std::string &text, char separator);

} // namespace router_test
