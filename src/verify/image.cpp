// SPDX-License-Identifier: ISC
#include "verify/image.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "base/crc32.h"
#include "base/guards.h"
#include "base/log.h"
#include "base/records.h"
#include "base/shell.h"
#include "base/text.h"
#include "discovery/device_facts.h"
#include "verify/metadata.h"

namespace fwupdate
{

namespace
{

constexpr std::uint32_t UIMAGE_MAGIC = 0x27051956;

// The first 64 bytes of a U-Boot legacy image. Numbers are big-endian.
struct ImageHeader {
	std::uint32_t magic;
	std::uint32_t header_crc; // over the header, with this field zero
	std::uint32_t time;
	std::uint32_t data_size; // not trusted: the data reach to the end of the file
	std::uint32_t load_address;
	std::uint32_t entry_point;
	std::uint32_t data_crc;
	std::uint8_t types[4]; // operating system, architecture, kind, compression
	char name[MODEL_NAME_SIZE];
};
static_assert(sizeof(ImageHeader) == 64);

// A file shorter than a header counts as padded with zeros.
ImageHeader read_header(const MappedBytes &file)
{
	ImageHeader header = {};
	std::memcpy(&header, file.start, std::min(file.size, sizeof(header)));
	return header;
}

// CRC-32 of everything behind the header.
std::uint32_t data_crc(const MappedBytes &file)
{
	const std::size_t header = std::min(file.size, sizeof(ImageHeader));
	return crc32_of(static_cast<const char *>(file.start) + header, file.size - header);
}

std::uint32_t header_crc(ImageHeader header)
{
	header.header_crc = 0;
	return crc32_of(&header, sizeof(header));
}

// Such an image is vouched for by its metadata, not by its data CRC.
bool wants_fwtool(const ImageHeader &header)
{
	static const char zeros[4] = {};
	const char *name_end = header.name + sizeof(header.name) - sizeof(zeros);
	return header.load_address == header.entry_point &&
	       std::memcmp(name_end, zeros, sizeof(zeros)) == 0;
}

int check_with_fwtool(const char *path)
{
	char command[VERIFY_COMMAND_SIZE];
	const bool fits = format_fwtool_command(command, path);
	const CommandResult result = fits ? run_command(command) : CommandResult::NOT_RUN;
	if (result == CommandResult::NOT_RUN) {
		log_message("Error on checking signature via fwtool\n");
		return IMAGE_BAD_CHECKSUM;
	}
	if (result == CommandResult::FAILED) {
		log_message("Error on reading signature, possibly firmware is damaged\n");
		return IMAGE_BAD_CHECKSUM;
	}
	remove_metadata_file(path);
	return IMAGE_GOOD;
}

int check_uimage(const char *path, const ImageHeader &header, const MappedBytes &file)
{
	// Kept even when the header turns out to be damaged.
	std::memcpy(fw_model_name, header.name, sizeof(fw_model_name));
	if (header_crc(header) != be32toh(header.header_crc)) {
		return IMAGE_BAD_HEADER;
	}
	if (wants_fwtool(header)) {
		return check_with_fwtool(path);
	}
	return data_crc(file) == be32toh(header.data_crc) ? IMAGE_GOOD : IMAGE_BAD_CHECKSUM;
}

int check_metadata(const char *path, const ImageHeader &header)
{
	if (check_signature_model(path) != 0) {
		return IMAGE_BAD_MAGIC;
	}
	return wants_fwtool(header) ? check_with_fwtool(path) : IMAGE_GOOD;
}

// O_NONBLOCK: a path that names a pipe must not hold up the daemon for ever.
constexpr int OPEN_FLAGS = O_RDONLY | O_CLOEXEC | O_NONBLOCK;

bool can_be_opened(const char *path)
{
	const int descriptor = open(path, OPEN_FLAGS);
	if (descriptor < 0) {
		return false;
	}
	close(descriptor);
	return true;
}

MappedBytes map_file(int descriptor, std::size_t size)
{
	return {mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0), size};
}

int check_file(const char *path, int descriptor)
{
	const DescriptorGuard descriptor_guard(descriptor);
	struct stat status;
	if (fstat(descriptor, &status) < 0) {
		return IMAGE_NOT_STATTED;
	}
	// More than 32 bits can address: no part of it is taken for the whole.
	if (!std::in_range<std::size_t>(status.st_size)) {
		return IMAGE_NOT_MAPPED;
	}
	const MappedBytes file = map_file(descriptor, static_cast<std::size_t>(status.st_size));
	const MappingGuard mapping_guard(file);
	if (file.start == MAP_FAILED) {
		return IMAGE_NOT_MAPPED;
	}

	const ImageHeader header = read_header(file);
	const int result = be32toh(header.magic) == UIMAGE_MAGIC ? check_uimage(path, header, file)
								 : check_metadata(path, header);
	if (result != IMAGE_GOOD) {
		return result;
	}
	return model_matches(fw_model_name) != 0 ? IMAGE_GOOD : IMAGE_BAD_MODEL;
}

// The model in front of the custom ID, if there are both brackets; else all of it.
void copy_model(char (&plain)[MODEL_NAME_SIZE], const char *model)
{
	copy_text(plain, sizeof(plain), model);
	char *bracket = std::strchr(plain, '[');
	if (bracket != nullptr && std::strchr(plain, ']') != nullptr) {
		*bracket = '\0';
	}
}

} // namespace

int verify_image(const char *path)
{
	update_context.state = UpdateState::FIRMWARE_CHECK;
	if (!can_be_opened(path)) {
		return IMAGE_NOT_OPENED;
	}
	const int descriptor = open(path, OPEN_FLAGS);
	// Descriptor 0 is a sign that something closed standard input: not trusted,
	// and left open so that the next file does not become it again. A failed open
	// shows itself as a failed fstat.
	if (descriptor == 0) {
		return IMAGE_NOT_OPENED;
	}
	return check_file(path, descriptor);
}

const char *image_check_text(int code)
{
	switch (code) {
	case IMAGE_NO_PARTITION:
		return "Can't get parition name";
	case IMAGE_BAD_MODEL:
		return "Bad Model";
	case IMAGE_TOO_BIG:
		return "Big Image";
	case IMAGE_BAD_CHECKSUM:
		return "Bad Image checksum";
	case IMAGE_BAD_HEADER:
		return "Bad Header checksum";
	case IMAGE_BAD_MAGIC:
		return "Bad Magic Number";
	case IMAGE_NOT_MAPPED:
		return "Can't mmap image";
	case IMAGE_NOT_STATTED:
		return "Can't stat image";
	case IMAGE_NOT_OPENED:
		return "Can't open image";
	default:
		return "Unknown";
	}
}

int model_matches(const char *model)
{
	char device[MODEL_NAME_SIZE];
	char firmware[MODEL_NAME_SIZE];
	copy_text(device, sizeof(device), read_cpe_product_name());
	copy_model(firmware, model);
	upper_case(device);
	upper_case(firmware);
	return std::strcmp(device, firmware) == 0 ? 1 : 0;
}

} // namespace fwupdate
