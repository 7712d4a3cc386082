// SPDX-License-Identifier: ISC
#include "support/files.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace router_test
{

namespace fs = std::filesystem;

void require_router()
{
	if (access("/realproc/self", F_OK) != 0 || access("/etc/router", F_OK) != 0) {
		throw std::runtime_error("this test changes the system that it runs on: start it "
					 "by testbed/router --bare -- PROGRAM");
	}
}

std::uint64_t free_bytes(const std::string &path)
{
	struct statvfs statistics = {};
	if (statvfs(path.c_str(), &statistics) != 0) {
		throw std::runtime_error("cannot measure " + path);
	}
	return static_cast<std::uint64_t>(statistics.f_bavail) * statistics.f_frsize;
}

bool exists(const std::string &path)
{
	struct stat status = {};
	return lstat(path.c_str(), &status) == 0;
}

std::string read_file(const std::string &path)
{
	std::ifstream file(path, std::ios::binary);
	std::ostringstream content;
	content << file.rdbuf();
	return content.str();
}

std::vector<std::string> list_folder(const std::string &path)
{
	std::vector<std::string> names;
	for (const fs::directory_entry &entry : fs::directory_iterator(path)) {
		names.push_back(entry.path().filename());
	}
	std::sort(names.begin(), names.end());
	return names;
}

std::vector<std::string> split_text(const std::string &text, char separator)
{
	std::vector<std::string> parts;
	std::istringstream stream(text);
	std::string part;
	while (std::getline(stream, part, separator)) {
		parts.push_back(part);
	}
	return parts;
}

} // namespace router_test
