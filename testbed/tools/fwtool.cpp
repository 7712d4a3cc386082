// SPDX-License-Identifier: ISC
// fwtool: appends metadata and signatures to a firmware file, and takes metadata out again.
//
//	image | chunk | chunk | ...		each chunk stands on everything before it
//	chunk = [8-byte header, metadata only] data, 16-byte trailer
//
// A file may come from anybody: every size in it is compared with what is there before it is
// followed.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace
{

constexpr int success = 0;
constexpr int failure = 1;

constexpr std::string_view magic = "FWx0";
constexpr std::size_t trailer_size = 16;
constexpr std::size_t header_size = 8;
constexpr std::size_t chunk_limit = 32 * 1024 + trailer_size;
constexpr std::size_t metadata_limit = 30 * 1024; // bytes that may be appended
constexpr std::size_t signature_limit = 1024;

enum ChunkType : char { signature = 0, metadata = 1 };

bool quiet = false;

int fail(const std::string &message)
{
	if (!quiet) {
		fprintf(stderr, "%s\n", message.c_str());
	}
	return failure;
}

std::uint32_t read_be32(std::string_view bytes)
{
	std::uint32_t value = 0;
	for (const char byte : bytes.substr(0, 4)) {
		value = value << 8 | static_cast<unsigned char>(byte);
	}
	return value;
}

std::string be32(std::uint32_t value)
{
	std::string bytes;
	for (int shift = 24; shift >= 0; shift -= 8) {
		bytes += static_cast<char>(value >> shift);
	}
	return bytes;
}

// A CRC-32 without its final inversion.
std::uint32_t checksum(std::string_view bytes, std::uint32_t start = 0xffffffff)
{
	return ~static_cast<std::uint32_t>(
		crc32_z(~start, reinterpret_cast<const Bytef *>(bytes.data()), bytes.size()));
}

// The data of the last metadata chunk, behind any others. Null and a reason when there is none.
std::string_view find_metadata(std::string_view file, const char *&problem)
{
	for (;;) {
		if (file.size() <= trailer_size) {
			problem = "File too short";
			return {};
		}
		const std::string_view covered = file.substr(0, file.size() - trailer_size);
		const std::string_view trailer = file.substr(covered.size());
		if (!trailer.starts_with(magic)) {
			problem = "Data not found";
			return {};
		}
		const bool is_metadata = trailer[8] == metadata;
		const std::size_t size = read_be32(trailer.substr(12));
		if (size < trailer_size + (is_metadata ? header_size : 0) || size > chunk_limit) {
			problem = "Size error";
			return {};
		}
		if (size >= file.size()) {
			problem = "File too short"; // a chunk without an image belongs to nothing
			return {};
		}
		if (read_be32(trailer.substr(4)) != checksum(covered)) {
			problem = "CRC error";
			return {};
		}
		const std::string_view chunk = covered.substr(file.size() - size);
		// Only version 0 of the header exists.
		if (is_metadata && read_be32(chunk) == 0) {
			return chunk.substr(header_size);
		}
		file.remove_suffix(size);
	}
}

// Mapped, not read: it may be larger than the memory there is. The end of the program unmaps it.
bool map_file(const char *path, std::string_view &bytes)
{
	struct stat status = {};
	const int file = open(path, O_RDONLY | O_CLOEXEC);
	if (file < 0 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
		return false;
	}
	const auto size = static_cast<std::size_t>(status.st_size);
	void *start = size == 0 ? nullptr : mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
	close(file);
	if (start == MAP_FAILED) {
		return false;
	}
	bytes = {static_cast<const char *>(start), size};
	return true;
}

int append(ChunkType type, const std::string &data_path, const char *firmware_path)
{
	std::ifstream data_file(data_path);
	std::istream &source = data_path == "-" ? std::cin : data_file;
	const std::string data{std::istreambuf_iterator<char>(source), {}};
	if (source.fail()) {
		return fail("Failed to read " + data_path);
	}
	if (data.size() > (type == metadata ? metadata_limit : signature_limit)) {
		return fail(data_path + " is too long");
	}
	std::string_view firmware;
	if (!map_file(firmware_path, firmware)) {
		return fail(std::string("Failed to open firmware file ") + firmware_path);
	}
	std::string chunk = std::string(type == metadata ? header_size : 0, '\0') + data;
	const std::uint32_t crc = checksum(chunk, checksum(firmware));
	const auto size = static_cast<std::uint32_t>(chunk.size() + trailer_size);
	chunk.append(magic).append(be32(crc) + static_cast<char>(type) + std::string(3, '\0') +
				   be32(size));
	std::ofstream(firmware_path, std::ios::app) << chunk;
	// What did not fit is taken back.
	struct stat now = {};
	if (stat(firmware_path, &now) != 0 ||
	    static_cast<std::size_t>(now.st_size) != firmware.size() + chunk.size()) {
		const bool undone =
			truncate(firmware_path, static_cast<off_t>(firmware.size())) == 0;
		return fail(std::string("Failed to append to ") + firmware_path +
			    (undone ? "" : ", and it is damaged now"));
	}
	return success;
}

int extract(const std::string &data_path, const char *firmware_path)
{
	std::ofstream data_file;
	if (data_path != "-") {
		data_file.open(data_path); // empty, whatever comes
	}
	std::ostream &out = data_path == "-" ? std::cout : data_file;
	std::string_view firmware;
	if (!map_file(firmware_path, firmware)) {
		return fail(std::string("Failed to open firmware file ") + firmware_path + ": " +
			    strerror(errno));
	}
	const char *problem = nullptr;
	const std::string_view data = find_metadata(firmware, problem);
	if (problem != nullptr) {
		return fail(problem);
	}
	if (!(out << data << std::flush)) {
		return fail("Failed to write " + data_path);
	}
	return success;
}

int usage(const char *program)
{
	fprintf(stderr,
		"Usage: %s [-q] -I METADATA | -S SIGNATURE FIRMWARE\n"
		"       %s [-q] -i METADATA FIRMWARE\n"
		"\n"
		"  -I, -S  append metadata or a signature\n"
		"  -i      write the metadata to a file (-: standard output)\n"
		"  -q      no error messages\n",
		program, program);
	return failure;
}

} // namespace

int main(int argc, char **argv)
{
	char action = '\0';
	const char *data_path = nullptr;
	for (int option; (option = getopt(argc, argv, "+i:I:S:q")) != -1;) {
		if (option == 'q') {
			quiet = true;
		} else if (option == '?' || action != '\0') {
			return usage(argv[0]);
		} else {
			action = static_cast<char>(option);
			data_path = optarg;
		}
	}
	if (action == '\0' || optind != argc - 1) {
		return usage(argv[0]);
	}
	if (action == 'i') {
		return extract(data_path, argv[optind]);
	}
	return append(action == 'I' ? metadata : signature, data_path, argv[optind]);
}
