// SPDX-License-Identifier: ISC
// Runs every file of the given folders (and every given file) through the fuzz target that this is
// linked with. Names each before it runs, so that the last name is the one that crashed. Fails when
// a folder holds no file or one cannot be read: a corpus that got lost would pass everything.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz_target.h"

namespace
{

using std::filesystem::path;

std::vector<path> files_of(const path &place)
{
	if (!std::filesystem::is_directory(place)) {
		return {place};
	}
	std::vector<path> files;
	for (const auto &entry : std::filesystem::directory_iterator(place)) {
		files.push_back(entry.path());
	}
	std::sort(files.begin(), files.end());
	return files;
}

bool replay(const path &file)
{
	std::ifstream stream(file, std::ios::binary);
	const std::vector<char> content{std::istreambuf_iterator<char>(stream), {}};
	if (!stream.is_open() || stream.bad()) {
		std::fprintf(stderr, "cannot read %s\n", file.c_str());
		return false;
	}
	std::printf("%s\n", file.c_str());
	std::fflush(stdout);
	LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(content.data()),
			       content.size());
	return true;
}

} // namespace

int main(int argc, char **argv)
{
	if (argc < 2) {
		std::fprintf(stderr, "Usage: %s FOLDER|FILE...\n", argv[0]);
		return 2;
	}
	for (int i = 1; i < argc; i++) {
		const std::vector<path> files = files_of(argv[i]);
		if (files.empty()) {
			std::fprintf(stderr, "%s is empty\n", argv[i]);
			return 1;
		}
		if (!std::all_of(files.begin(), files.end(), replay)) {
			return 1;
		}
	}
	return 0;
}
