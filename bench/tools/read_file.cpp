// SPDX-License-Identifier: ISC
// The baselines of an image check: walks over a file that is mapped as the daemon maps it, once,
// and prints the seconds that took.
//
//	read_file crc FILE     computes the CRC-32 of everything behind the first 64 bytes
//	read_file model FILE   the same, and then asks for the router's model as the daemon does
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/crc32.h"
#include "clock.h"

namespace
{

constexpr std::size_t HEADER = 64;

// Started as the daemon starts it, by popen.
bool ask_for_model()
{
	char line[64];
	FILE *answer = popen(
		"ubus call system board | jsonfilter -e '@[\"product_name\"]' | tr -d '\r\n'", "r");
	const bool delivered =
		answer != nullptr && std::fgets(line, sizeof(line), answer) != nullptr;
	return answer != nullptr && pclose(answer) == 0 && delivered;
}

} // namespace

int main(int argc, char **argv)
{
	const bool model = argc == 3 && std::strcmp(argv[1], "model") == 0;
	if (argc != 3 || (!model && std::strcmp(argv[1], "crc") != 0)) {
		std::fputs("Usage: read_file crc|model FILE\n", stderr);
		return 2;
	}
	const double started = seconds_now();
	const int descriptor = open(argv[2], O_RDONLY | O_CLOEXEC);
	struct stat status = {};
	if (descriptor < 0 || fstat(descriptor, &status) != 0 || status.st_size < 64) {
		std::fprintf(stderr, "read_file: '%s' is no file of 64 bytes or more\n", argv[2]);
		return 1;
	}
	const auto size = static_cast<std::size_t>(status.st_size);
	void *memory = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
	if (memory == MAP_FAILED) {
		std::perror("read_file: mmap");
		return 1;
	}
	const auto *bytes = static_cast<const unsigned char *>(memory);
	const unsigned long result = fwupdate::crc32_of(bytes + HEADER, size - HEADER);
	if (model && !ask_for_model()) {
		std::fputs("read_file: the router does not tell its model\n", stderr);
		return 1;
	}
	munmap(memory, size);
	close(descriptor);
	std::printf("%.6f %lu\n", seconds_now() - started, result);
	return 0;
}
