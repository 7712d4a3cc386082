// SPDX-License-Identifier: ISC
// fwtool: appends metadata and signatures to a firmware file and takes them out again.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "fwtool_chunk.h"

namespace
{

using fwtool::ChunkType;
using Content = std::vector<std::uint8_t>;

constexpr int success = 0;
constexpr int failure = 1;

struct Request {
	ChunkType type = ChunkType::metadata;
	bool append = false;
	const char *data_path = nullptr; // "-": standard input or output
	const char *firmware_path = nullptr;
	bool truncate = false;
	bool print_rest = false; // the firmware without what was found, to standard output
};

bool quiet = false;

[[gnu::format(printf, 1, 2)]] int fail(const char *format, ...)
{
	if (!quiet) {
		va_list arguments;
		va_start(arguments, format);
		vfprintf(stderr, format, arguments);
		va_end(arguments);
		fputc('\n', stderr);
	}
	return failure;
}

class Descriptor
{
public:
	explicit Descriptor(int number) : number_(number)
	{
	}
	~Descriptor()
	{
		if (number_ > STDERR_FILENO) {
			close(number_);
		}
	}
	Descriptor(const Descriptor &) = delete;
	Descriptor &operator=(const Descriptor &) = delete;
	int number() const
	{
		return number_;
	}
	bool valid() const
	{
		return number_ >= 0;
	}

private:
	int number_;
};

int open_data(const Request &request)
{
	if (std::string_view(request.data_path) == "-") {
		return request.append ? STDIN_FILENO : STDOUT_FILENO;
	}
	const int flags = request.append ? O_RDONLY : O_WRONLY | O_CREAT;
	return open(request.data_path, flags | O_CLOEXEC, 0644);
}

// At most `limit` bytes; nothing on a read error.
std::optional<Content> read_all(int descriptor, std::size_t limit)
{
	constexpr std::size_t step = 1 << 20;
	Content content;
	while (content.size() < limit) {
		const std::size_t old = content.size();
		content.resize(old + std::min(step, limit - old));
		const ssize_t got = read(descriptor, content.data() + old, content.size() - old);
		content.resize(old + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
		if (got < 0 && errno != EINTR) {
			return std::nullopt;
		}
		if (got == 0) {
			break;
		}
	}
	return content;
}

bool write_all(int descriptor, fwtool::Bytes bytes)
{
	while (!bytes.empty()) {
		const ssize_t put = write(descriptor, bytes.data(), bytes.size());
		if (put < 0 && errno != EINTR) {
			return false;
		}
		bytes = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(put, 0)));
	}
	return true;
}

bool same_file(int one, int other)
{
	struct stat a = {};
	struct stat b = {};
	return fstat(one, &a) == 0 && fstat(other, &b) == 0 && a.st_dev == b.st_dev &&
	       a.st_ino == b.st_ino;
}

bool is_regular(int descriptor)
{
	struct stat status = {};
	return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

// A whole file, read-only. Mapped, not read: it may be larger than the memory there is.
class Mapping
{
public:
	explicit Mapping(int descriptor)
	{
		struct stat status = {};
		if (fstat(descriptor, &status) != 0 || status.st_size == 0) {
			return;
		}
		if (!std::in_range<std::size_t>(status.st_size)) {
			error_ = EFBIG;
			return;
		}
		const auto size = static_cast<std::size_t>(status.st_size);
		void *start = mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0);
		if (start == MAP_FAILED) {
			error_ = errno;
			return;
		}
		bytes_ = {static_cast<const std::uint8_t *>(start), size};
	}
	~Mapping()
	{
		if (!bytes_.empty()) {
			munmap(const_cast<std::uint8_t *>(bytes_.data()), bytes_.size());
		}
	}
	Mapping(const Mapping &) = delete;
	Mapping &operator=(const Mapping &) = delete;
	fwtool::Bytes bytes() const
	{
		return bytes_;
	}
	// 0 when the file is there, an empty one too.
	int error() const
	{
		return error_;
	}

private:
	fwtool::Bytes bytes_;
	int error_ = 0;
};

int append(const Request &request, int data_file, int firmware_file, fwtool::Bytes firmware)
{
	const std::size_t limit = fwtool::data_limit(request.type);
	const std::optional<Content> data = read_all(data_file, limit + 1);
	if (!data) {
		return fail("Failed to read %s: %s", request.data_path, strerror(errno));
	}
	if (data->size() > limit) {
		return fail("%s is longer than %zu bytes", request.data_path, limit);
	}
	const Content chunk = fwtool::make_chunk(firmware, request.type, *data);
	const auto end = static_cast<off_t>(firmware.size());
	if (lseek(firmware_file, end, SEEK_SET) != end || !write_all(firmware_file, chunk)) {
		const int error = errno;
		if (ftruncate(firmware_file, end) != 0) {
			fail("Failed to take back what was appended: %s", strerror(errno));
		}
		return fail("Failed to append to %s: %s", request.firmware_path, strerror(error));
	}
	return success;
}

int extract(const Request &request, int data_file, int firmware_file, fwtool::Bytes firmware)
{
	const fwtool::Search search = fwtool::find_chunk(firmware, request.type);
	if (search.result != fwtool::SearchResult::found) {
		return fail("%s", fwtool::search_result_text(search.result));
	}
	if (!write_all(data_file, search.data)) {
		return fail("Failed to write %s: %s", request.data_path, strerror(errno));
	}
	if (request.print_rest && !write_all(STDOUT_FILENO, firmware.first(search.start))) {
		return fail("Failed to write the firmware: %s", strerror(errno));
	}
	if (request.truncate && ftruncate(firmware_file, static_cast<off_t>(search.start)) != 0) {
		return fail("Failed to truncate %s: %s", request.firmware_path, strerror(errno));
	}
	return success;
}

int run(const Request &request)
{
	const Descriptor data_file(open_data(request));
	if (!data_file.valid()) {
		return fail("Failed to open %s: %s", request.data_path, strerror(errno));
	}
	const bool changes_firmware = request.append || request.truncate;
	const Descriptor firmware_file(
		open(request.firmware_path, (changes_firmware ? O_RDWR : O_RDONLY) | O_CLOEXEC));
	const int firmware_error = errno;
	if (firmware_file.valid() && same_file(data_file.number(), firmware_file.number())) {
		return fail("%s and %s are the same file", request.data_path,
			    request.firmware_path);
	}
	// Only now: an output that turns out to be the firmware must keep its content.
	if (!request.append && is_regular(data_file.number()) &&
	    ftruncate(data_file.number(), 0) != 0) {
		return fail("Failed to empty %s: %s", request.data_path, strerror(errno));
	}
	if (!firmware_file.valid()) {
		return fail("Failed to open firmware file %s: %s", request.firmware_path,
			    strerror(firmware_error));
	}
	if (!is_regular(firmware_file.number())) {
		return fail("%s is not a regular file", request.firmware_path);
	}
	const Mapping firmware(firmware_file.number());
	if (firmware.error() != 0) {
		return fail("Failed to read %s: %s", request.firmware_path,
			    strerror(firmware.error()));
	}
	return (request.append ? append : extract)(request, data_file.number(),
						   firmware_file.number(), firmware.bytes());
}

int usage(const char *program)
{
	fprintf(stderr,
		"Usage: %s [-q] -I METADATA | -S SIGNATURE FIRMWARE\n"
		"       %s [-q] [-t] [-T] -i METADATA | -s SIGNATURE FIRMWARE\n"
		"\n"
		"  -I, -S  append metadata or a signature\n"
		"  -i, -s  write the metadata or the signature to a file (-: standard output)\n"
		"  -t      cut what was found, and all that follows it, from the firmware\n"
		"  -T      print the firmware without what was found, and all that follows it\n"
		"  -q      no error messages\n",
		program, program);
	return failure;
}

} // namespace

int main(int argc, char **argv)
{
	Request request;
	int actions = 0;
	for (int option; (option = getopt(argc, argv, "+i:I:s:S:tTq")) != -1;) {
		switch (option) {
		case 'i':
		case 'I':
		case 's':
		case 'S':
			request.type = option == 'i' || option == 'I' ? ChunkType::metadata
								      : ChunkType::signature;
			request.append = option == 'I' || option == 'S';
			request.data_path = optarg;
			actions++;
			break;
		case 't':
			request.truncate = true;
			break;
		case 'T':
			request.print_rest = true;
			break;
		case 'q':
			quiet = true;
			break;
		default:
			return usage(argv[0]);
		}
	}
	if (actions != 1 || optind != argc - 1) {
		return usage(argv[0]);
	}
	request.firmware_path = argv[optind];
	return run(request);
}
