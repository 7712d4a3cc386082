// SPDX-License-Identifier: ISC
// blobmsg as it comes from the bus: the input is one attribute. Whatever the checks and parsers
// hand out must be readable to its last byte.
#include <cstring>
#include <memory>

#include "bus_headers.h"
#include "fuzz_target.h"

namespace
{

constexpr int deepest = 16;

struct Freer {
	void operator()(void *memory) const
	{
		std::free(memory);
	}
};

// Memory that ends with the data, so that the sanitizer sees a read beyond.
std::unique_ptr<char, Freer> exact_copy(const void *data, std::size_t size)
{
	std::unique_ptr<char, Freer> copy(static_cast<char *>(std::malloc(size)));
	require(copy != nullptr, "memory");
	std::memcpy(copy.get(), data, size);
	return copy;
}

std::uint32_t touch(const char *bytes, std::size_t size)
{
	std::uint32_t sum = 0;
	for (std::size_t i = 0; i < size; i++) {
		sum = sum * 31 + static_cast<unsigned char>(bytes[i]);
	}
	return sum;
}

volatile std::uint32_t sink; // so that no read is optimized away

void parse_fields(const char *data, std::size_t size, int depth);

void read_value(blob_attr *attr, int depth)
{
	const auto *data = static_cast<const char *>(blobmsg_data(attr));
	const std::size_t size = blobmsg_data_len(attr);
	sink = touch(blobmsg_name(attr), std::strlen(blobmsg_name(attr)));
	sink = touch(data, size);
	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_STRING:
		require(std::strlen(data) < size, "a string ends inside its attribute");
		break;
	case BLOBMSG_TYPE_INT8:
		require(size == 1, "a byte's size");
		break;
	case BLOBMSG_TYPE_INT16:
		require(size == 2, "a short's size");
		break;
	case BLOBMSG_TYPE_INT32:
		require(size == 4, "an int's size");
		break;
	case BLOBMSG_TYPE_INT64:
		require(size == 8, "a long's size");
		break;
	case BLOBMSG_TYPE_DOUBLE: // alone in that more may follow
		require(size >= 8, "a double's size");
		break;
	case BLOBMSG_TYPE_TABLE:
	case BLOBMSG_TYPE_ARRAY:
		parse_fields(data, size, depth + 1);
		break;
	default:
		break;
	}
}

void parse_fields(const char *data, std::size_t size, int depth)
{
	constexpr blobmsg_policy named[] = {
		{"text", BLOBMSG_TYPE_STRING}, {"flag", BLOBMSG_TYPE_INT8},
		{"small", BLOBMSG_TYPE_INT16}, {"number", BLOBMSG_TYPE_INT32},
		{"large", BLOBMSG_TYPE_INT64}, {"real", BLOBMSG_TYPE_DOUBLE},
		{"list", BLOBMSG_TYPE_ARRAY},  {"table", BLOBMSG_TYPE_TABLE},
		{"any", BLOBMSG_TYPE_UNSPEC},  {nullptr, BLOBMSG_TYPE_STRING},
	};
	constexpr int count = sizeof(named) / sizeof(named[0]);
	if (depth == deepest) {
		return;
	}
	for (const auto parse : {blobmsg_parse, blobmsg_parse_array}) {
		blob_attr *fields[count];
		parse(named, count, fields, const_cast<char *>(data),
		      static_cast<unsigned int>(size));
		for (int i = 0; i < count; i++) {
			if (fields[i] && named[i].type != BLOBMSG_TYPE_UNSPEC) {
				require(blobmsg_type(fields[i]) == named[i].type,
					"a field has the type that was asked for");
			}
			if (fields[i]) {
				read_value(fields[i], depth);
			}
		}
	}
}

void parse_plain(blob_attr *attr, std::size_t size)
{
	constexpr int count = 8;
	blob_attr_info info[count] = {};
	for (int i = 0; i < count; i++) {
		info[i].type = static_cast<unsigned int>(i);
	}
	blob_attr *fields[count];
	if (blob_parse_untrusted(attr, size, fields, info, count) < 0) {
		return;
	}
	for (const blob_attr *field : fields) {
		if (field) {
			sink = touch(static_cast<const char *>(blob_data(field)), blob_len(field));
		}
	}
}

void print(blob_attr *attr)
{
	for (const bool list : {false, true}) {
		const std::unique_ptr<char, Freer> text(blobmsg_format_json_indent(attr, list, 0));
		if (!text) {
			continue;
		}
		blob_buf back = {};
		blob_buf_init(&back, 0);
		blobmsg_add_json_from_string(&back, text.get());
		blob_buf_free(&back);
	}
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size == 0) {
		return 0;
	}
	const auto copy = exact_copy(data, size);
	parse_fields(copy.get(), size, 0);
	if (size < sizeof(blob_attr)) {
		return 0;
	}
	auto *attr = reinterpret_cast<blob_attr *>(copy.get());
	parse_plain(attr, size);
	for (const bool with_name : {false, true}) {
		if (blobmsg_check_attr_len(attr, with_name, size) && blob_is_extended(attr)) {
			read_value(attr, 0);
			print(attr);
		}
	}
	return 0;
}
