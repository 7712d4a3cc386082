// SPDX-License-Identifier: ISC
#include "support/router_files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <zlib.h>

namespace router_test
{
namespace
{

namespace fs = std::filesystem;

constexpr const char *uci_system = "/etc/config/system";
constexpr const char *url_option = "option fwupdate_xml_url";
constexpr const char *tmp_filler = "/tmp/filler";
[[noreturn]] void fail(const std::string &what)
{
	throw std::runtime_error(what + ": " + std::strerror(errno));
}

void write_in_place(const std::string &path, std::string_view content)
{
	int descriptor = open(path.c_str(), O_WRONLY | O_TRUNC | O_CREAT | O_CLOEXEC, 0644);
	if (descriptor < 0) {
		fail("cannot open " + path);
	}
	while (!content.empty()) {
		ssize_t count = ::write(descriptor, content.data(), content.size());
		if (count <= 0) {
			close(descriptor);
			fail("cannot write " + path);
		}
		content.remove_prefix(static_cast<std::size_t>(count));
	}
	close(descriptor);
}

// A program that runs cannot be opened for writing, a link must not be written through and a
// mounted file cannot be unlinked: so the old one goes away where that is possible.
void replace_file(const std::string &path, std::string_view content, unsigned mode)
{
	std::error_code ignored;
	fs::create_directories(fs::path(path).parent_path(), ignored);
	if (unlink(path.c_str()) != 0 && errno != ENOENT && errno != EBUSY) {
		fail("cannot replace " + path);
	}
	write_in_place(path, content);
	chmod(path.c_str(), mode);
}

struct statvfs tmp_statistics()
{
	struct statvfs statistics = {};
	if (statvfs("/tmp", &statistics) != 0) {
		fail("cannot measure /tmp");
	}
	return statistics;
}

void remount_tmp(std::uint64_t bytes)
{
	std::string option = "size=" + std::to_string(bytes);
	if (mount(nullptr, "/tmp", nullptr, MS_REMOUNT | MS_NOSUID | MS_NODEV, option.c_str()) !=
	    0) {
		fail("cannot remount /tmp with " + option);
	}
}

} // namespace

std::string mtd_listing(const std::vector<MtdPartition> &partitions)
{
	std::string listing = "dev:    size   erasesize  name\n";
	unsigned index = 0;
	for (const MtdPartition &partition : partitions) {
		char sizes[64];
		std::snprintf(sizes, sizeof(sizes), "mtd%u: %08x %08x \"", index++, partition.size,
			      partition.erase_size);
		listing += sizes + partition.name + "\"\n";
	}
	return listing;
}

RouterFiles::~RouterFiles()
{
	restore();
}

void RouterFiles::keep_original(const std::string &path)
{
	require_router();
	for (const Original &original : originals_) {
		if (original.path == path) {
			return;
		}
	}
	Original original{.path = path};
	struct stat status = {};
	if (lstat(path.c_str(), &status) == 0) {
		original.mode = status.st_mode & 07777;
		bool is_link = S_ISLNK(status.st_mode);
		original.kind = is_link ? Original::Kind::link : Original::Kind::file;
		original.content = is_link ? fs::read_symlink(path).string() : read_file(path);
	}
	originals_.push_back(original);
}

void RouterFiles::write(const std::string &path, std::string_view content, unsigned mode)
{
	keep_original(path);
	replace_file(path, content, mode);
}

void RouterFiles::remove(const std::string &path)
{
	keep_original(path);
	if (unlink(path.c_str()) != 0 && errno != ENOENT) {
		fail("cannot remove " + path);
	}
}

void RouterFiles::restore()
{
	while (!originals_.empty()) {
		Original original = std::move(originals_.back());
		originals_.pop_back();
		if (original.kind == Original::Kind::file) {
			replace_file(original.path, original.content, original.mode);
			continue;
		}
		unlink(original.path.c_str());
		if (original.kind == Original::Kind::link &&
		    symlink(original.content.c_str(), original.path.c_str()) != 0) {
			std::fprintf(stderr, "cannot restore %s\n", original.path.c_str());
		}
	}
	if (tmp_size_) {
		unlink(tmp_filler);
		remount_tmp(*tmp_size_);
		tmp_size_.reset();
	}
}

void RouterFiles::set_mtd(const std::vector<MtdPartition> &partitions)
{
	write("/proc/mtd", mtd_listing(partitions));
}

void RouterFiles::set_board(std::string_view json)
{
	write("/etc/router/board.json", json);
}

void RouterFiles::set_wan(std::string_view json)
{
	write("/etc/router/wan.json", json);
}

void RouterFiles::set_manifest_url(std::string_view url)
{
	std::string config;
	bool added = url.empty();
	for (const std::string &line : split_text(read_file(uci_system), '\n')) {
		if (line.find(url_option) != std::string::npos) {
			continue;
		}
		config += line + "\n";
		if (!added && line.starts_with("config system")) {
			config += std::string("\t") + url_option + " '" + std::string(url) + "'\n";
			added = true;
		}
	}
	write(uci_system, config);
}

// As mkenvimage makes it: CRC-32 of the rest, little-endian, then NAME=VALUE texts, each with its
// zero byte.
void RouterFiles::set_boot_environment(const std::vector<std::string> &settings)
{
	std::istringstream config(read_file("/etc/fw_env.config"));
	std::string path;
	std::string offset;
	std::string size_text;
	config >> path >> offset >> size_text;
	std::size_t size = std::stoul(size_text, nullptr, 0);
	std::string data;
	for (const std::string &setting : settings) {
		data += setting + '\0';
	}
	data.resize(size - sizeof(std::uint32_t));
	auto crc = static_cast<std::uint32_t>(crc32(0, reinterpret_cast<const Bytef *>(data.data()),
						    static_cast<uInt>(data.size())));
	std::string head;
	for (int shift = 0; shift < 32; shift += 8) {
		head += static_cast<char>(crc >> shift);
	}
	write(path, head + data);
}

void RouterFiles::set_tmp_size(std::uint64_t bytes)
{
	require_router();
	if (!tmp_size_) {
		struct statvfs present = tmp_statistics();
		tmp_size_ = static_cast<std::uint64_t>(present.f_blocks) * present.f_frsize;
	}
	remount_tmp(bytes);
}

std::string RouterFiles::fill_tmp(std::uint64_t bytes_left)
{
	keep_original(tmp_filler);
	std::uint64_t free = free_bytes("/tmp");
	if (free < bytes_left) {
		throw std::runtime_error("/tmp has less than that free");
	}
	int descriptor = open(tmp_filler, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
	int error = free == bytes_left
			    ? 0
			    : posix_fallocate(descriptor, 0, static_cast<off_t>(free - bytes_left));
	close(descriptor);
	if (error != 0) {
		errno = error;
		fail("cannot fill /tmp");
	}
	return tmp_filler;
}

} // namespace router_test
