// SPDX-License-Identifier: ISC
// The functions have the names that fuzz/CMakeLists.txt gives to the daemon's calls.
#include "outside.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <curl/curl.h>
#include <memory>
#include <stdio_ext.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "base/bus_and_loop.h"
#include "base/log.h"
#include "base/records.h"
#include "daemon/update_job.h"
#include "discovery/device_facts.h"
#include "discovery/manifest.h"
#include "fuzz_input.h"
#include "fuzz_target.h"
#include "verify/metadata.h"

// NOLINTNEXTLINE(readability-identifier-naming): Mini-XML's name
extern "C" void outside_mxmlDelete(mxml_node_t *node);

namespace fuzz
{

Outside outside;

namespace
{

constexpr int first_descriptor = 1000; // none of this process's own
constexpr std::size_t most_descriptors = 8;

// What a router prints on which everything is in order.
constexpr Tool sound_tools[] = {
	{"qor_factory r sn", "SN00012345\n"},
	{"revision", "r1234"},
	{"builddate", "171000000"},
	{"@.device", "wan"},
	{"ip route show", "wan"},
	{"HWaddr", "02:00:00:00:00:10"},
	{"inet addr:", "192.0.2.10"},
	{"uci -q get", "http://update.example.com/update.xml\n"},
	{"board_name", "qor,model-x"},
	{"product_name", "Model-X"},
	{"df /tmp", "67108864"},
	{"supported_devices", "Model-X"},
	{"customid", ""},
	{"fw_printenv", "firmware2"},
};

// Every command that the daemon runs begins like one of these.
struct Command {
	std::string_view beginning;
	int Outside::*ending;
};
constexpr Command known_commands[] = {
	{"/usr/bin/fwtool -i ", &Outside::fwtool_ending},
	{"/usr/sbin/fw_setenv bootpart ", &Outside::setenv_ending},
};
constexpr std::size_t longest_command = 256;

std::array<bool, most_descriptors> descriptors;
int documents; // that Mini-XML has made and nobody has deleted

struct Transfer {
	std::size_t (*write)(char *, std::size_t, std::size_t, void *);
	void *write_data;
	char *error;
};
Transfer transfer;

std::string_view output_of(const char *command)
{
	for (const Tool &tool : outside.tools) {
		if (std::strstr(command, tool.part) != nullptr) {
			return tool.output;
		}
	}
	for (const Tool &tool : sound_tools) {
		if (std::strstr(command, tool.part) != nullptr) {
			return tool.output;
		}
	}
	require(false, "the daemon asks no tool that nobody knows");
	return {};
}

// A stream that is used again and again: opening one takes longer than all the rest.
struct Stream {
	std::FILE *file;
	std::string_view rest;
	bool open;
};
std::array<Stream, 2> streams;

ssize_t read_stream(void *cookie, char *buffer, std::size_t size)
{
	auto &stream = *static_cast<Stream *>(cookie);
	require(stream.open, "nobody reads from a closed stream");
	const std::string_view bytes = stream.rest.substr(0, size);
	std::copy(bytes.begin(), bytes.end(), buffer);
	stream.rest.remove_prefix(bytes.size());
	return static_cast<ssize_t>(bytes.size());
}

std::FILE *open_stream(std::string_view text)
{
	for (Stream &stream : streams) {
		if (stream.open) {
			continue;
		}
		if (stream.file == nullptr) {
			stream.file =
				fopencookie(&stream, "r", {read_stream, nullptr, nullptr, nullptr});
			require(stream.file != nullptr, "memory for a stream");
		}
		stream.rest = text;
		stream.open = true;
		return stream.file;
	}
	require(false, "the daemon closes its streams");
	return nullptr;
}

void close_stream(const std::FILE *file)
{
	for (Stream &stream : streams) {
		if (stream.file == file) {
			require(stream.open, "a stream is closed once");
			stream.open = false;
			__fpurge(stream.file);
			clearerr_unlocked(stream.file);
			return;
		}
	}
	require(false, "a stream that was given out");
}

int open_descriptor()
{
	for (std::size_t i = 0; i < descriptors.size(); i++) {
		if (!descriptors[i]) {
			descriptors[i] = true;
			return first_descriptor + static_cast<int>(i);
		}
	}
	require(false, "the daemon closes its descriptors");
	return -1;
}

std::size_t index_of(int descriptor)
{
	require(descriptor >= first_descriptor &&
			descriptor < first_descriptor + static_cast<int>(most_descriptors),
		"a descriptor that was given out");
	const auto index = static_cast<std::size_t>(descriptor - first_descriptor);
	require(descriptors[index], "and is open");
	return index;
}

// Messages that leave the daemon are sound to their last attribute.
void check_message(const blob_attr *message)
{
	require(message != nullptr, "a message has content");
	const auto *at = static_cast<const char *>(blob_data(message));
	std::size_t left = blob_len(message);
	while (left > 0) {
		const auto *attr = reinterpret_cast<const blob_attr *>(at);
		require(blobmsg_check_attr_len(attr, true, left), "a message is sound");
		const std::size_t size = std::min<std::size_t>(blob_pad_len(attr), left);
		at += size;
		left -= size;
	}
}

} // namespace

void reset_daemon()
{
	using namespace fwupdate;
	outside_mxmlDelete(manifest_buffer.document);
	manifest_buffer = {};
	update_manifest = {};
	update_context = {};
	device_facts = {};
	std::memset(fw_model_name, 0, sizeof(fw_model_name));
	debug_mode = 1;
	outside = {};
	descriptors = {};
	transfer = {};
}

void check_daemon()
{
	using namespace fwupdate;
	const UpdateContext &context = update_context;
	require(strnlen(context.message, sizeof(context.message)) < sizeof(context.message),
		"the last message ends in its field");
	require(strnlen(context.boot_partition, PARTITION_SIZE) < PARTITION_SIZE,
		"the partition ends in its field");
	require(context.need_update >= -1 && context.need_update <= 1, "a query has three results");
	for (const Stream &stream : streams) {
		require(!stream.open, "streams are closed");
	}
	require(documents == (manifest_buffer.document != nullptr ? 1 : 0),
		"one document at a time, until the next query");
	for (const bool descriptor : descriptors) {
		require(!descriptor, "descriptors are closed");
	}
}

} // namespace fuzz

// A job that waits for its download.
bool fwupdate::start_job(ubus_request_data *request, const UpdateArguments & /*arguments*/)
{
	update_context.job.active = true;
	request->deferred = true;
	return true;
}

using namespace fuzz;

extern "C" {

// Tools

std::FILE *outside_popen(const char *command, const char * /*mode*/)
{
	return open_stream(output_of(command));
}

int outside_pclose(std::FILE *stream)
{
	close_stream(stream);
	return 0;
}

int outside_system(const char *command)
{
	const std::string_view text(command);
	require(text.size() < longest_command, "a command fits its buffer");
	for (const Command &known : known_commands) {
		if (text.starts_with(known.beginning)) {
			return outside.*known.ending;
		}
	}
	require(false, "the daemon runs no command that nobody knows");
	return NOT_RUN;
}

int outside_access(const char * /*path*/, int /*mode*/)
{
	return outside.has_boot_tools ? 0 : -1;
}

void outside_openlog(const char * /*ident*/, int /*option*/, int /*facility*/)
{
}

void outside_syslog(int /*priority*/, const char * /*format*/, ...)
{
}

void outside_closelog()
{
}

// Files

std::FILE *outside_fopen(const char *path, const char * /*mode*/)
{
	require(std::strcmp(path, "/proc/mtd") == 0, "the one file that is read as a stream");
	return outside.has_mtd ? open_stream(outside.mtd) : nullptr;
}

int outside_fclose(std::FILE *stream)
{
	close_stream(stream);
	return 0;
}

int outside_open(const char * /*path*/, int /*flags*/, ...)
{
	return outside.has_image ? open_descriptor() : -1;
}

int outside_fstat(int descriptor, struct stat *status)
{
	index_of(descriptor);
	*status = {};
	status->st_size = static_cast<off_t>(outside.image.size());
	return 0;
}

// Memory that ends with the file, other than a real mapping.
void *outside_mmap(void * /*address*/, std::size_t size, int /*protection*/, int /*flags*/,
		   int descriptor, off_t /*offset*/)
{
	index_of(descriptor);
	return size == 0 ? MAP_FAILED : exact_copy(outside.image.substr(0, size)).release();
}

int outside_munmap(void *start, std::size_t /*size*/)
{
	delete[] static_cast<char *>(start);
	return 0;
}

int outside_close(int descriptor)
{
	descriptors[index_of(descriptor)] = false;
	return 0;
}

int outside_remove(const char * /*path*/)
{
	return 0;
}

// The update server

CURL *outside_curl_easy_init()
{
	return reinterpret_cast<CURL *>(&transfer);
}

// Not CURLoption, which va_start does not take.
CURLcode outside_curl_easy_setopt(CURL * /*curl*/, unsigned int option, ...)
{
	va_list arguments;
	va_start(arguments, option);
	switch (option) {
	case CURLOPT_WRITEFUNCTION:
		transfer.write = va_arg(arguments, decltype(transfer.write));
		break;
	case CURLOPT_WRITEDATA:
		transfer.write_data = va_arg(arguments, void *);
		break;
	case CURLOPT_ERRORBUFFER:
		transfer.error = va_arg(arguments, char *);
		break;
	default:
		break;
	}
	va_end(arguments);
	return CURLE_OK;
}

CURLcode outside_curl_easy_perform(CURL * /*curl*/)
{
	for (const std::string_view piece : outside.answer) {
		const auto copy = exact_copy(piece);
		if (!piece.empty() && transfer.write(copy.get(), 1, piece.size(),
						     transfer.write_data) != piece.size()) {
			std::strcpy(transfer.error, "Failure writing output to destination");
			return CURLE_WRITE_ERROR;
		}
	}
	return outside.transfer_breaks ? CURLE_PARTIAL_FILE : CURLE_OK;
}

void outside_curl_easy_cleanup(CURL * /*curl*/)
{
}

// Mini-XML is the real one. It loses an element that it gives up in the middle of
// (tests/lsan.supp), so that lost memory does not tell whether a document was lost.
// NOLINTNEXTLINE(readability-identifier-naming): Mini-XML's name
mxml_node_t *outside_mxmlLoadString(mxml_node_t *top, const char *text, mxml_load_cb_t type)
{
	mxml_node_t *document = mxmlLoadString(top, text, type);
	documents += document != nullptr ? 1 : 0;
	return document;
}

// NOLINTNEXTLINE(readability-identifier-naming): Mini-XML's name
void outside_mxmlDelete(mxml_node_t *node)
{
	documents -= node != nullptr && mxmlGetParent(node) == nullptr ? 1 : 0;
	mxmlDelete(node);
}

// The bus

int outside_ubus_send_reply(ubus_context * /*bus*/, ubus_request_data * /*request*/,
			    blob_attr *message)
{
	check_message(message);
	outside.replies++;
	return 0;
}

int outside_ubus_send_event(ubus_context * /*bus*/, const char * /*id*/, blob_attr *message)
{
	check_message(message);
	outside.events++;
	return 0;
}
} // extern "C"
