// SPDX-License-Identifier: ISC
#include "support/fields.h"

#include <cstring>
#include <endian.h>

#include "support/bus_headers.h"

namespace router_test
{
namespace
{

Field integer_field(std::string_view name, int type, std::int64_t value)
{
	return {.name = std::string(name), .type = type, .number = value};
}

void append_field(blob_buf *buffer, const Field &field)
{
	const char *name = field.name.c_str();
	std::uint64_t bits = static_cast<std::uint64_t>(field.number);
	switch (field.type) {
	case BLOBMSG_TYPE_STRING:
		blobmsg_add_string(buffer, name, field.text.c_str());
		return;
	case BLOBMSG_TYPE_INT64:
		blobmsg_add_u64(buffer, name, bits);
		return;
	case BLOBMSG_TYPE_INT32:
		blobmsg_add_u32(buffer, name, static_cast<std::uint32_t>(bits));
		return;
	case BLOBMSG_TYPE_INT16: {
		std::uint16_t value = htobe16(static_cast<std::uint16_t>(bits));
		blobmsg_add_field(buffer, BLOBMSG_TYPE_INT16, name, &value, sizeof(value));
		return;
	}
	case BLOBMSG_TYPE_INT8: {
		std::uint8_t value = static_cast<std::uint8_t>(bits);
		blobmsg_add_field(buffer, BLOBMSG_TYPE_INT8, name, &value, sizeof(value));
		return;
	}
	default: {
		void *nest = blobmsg_open_nested(buffer, name, false);
		append_fields(buffer, field.members);
		blobmsg_close_table(buffer, nest);
	}
	}
}

// The number in a value of 1, 2, 4 or 8 bytes, sign-extended.
std::int64_t read_integer(const unsigned char *value, std::size_t size)
{
	std::uint64_t bits = (size > 0 && (value[0] & 0x80U) != 0) ? ~std::uint64_t{0} : 0;
	for (std::size_t i = 0; i < size; i++) {
		bits = bits << 8 | value[i];
	}
	return static_cast<std::int64_t>(bits);
}

Fields read_list(const unsigned char *data, std::size_t size);

Field read_field(blob_attr *attribute)
{
	Field field;
	field.name = blobmsg_name(attribute);
	field.type = blobmsg_type(attribute);
	const auto *value = static_cast<const unsigned char *>(blobmsg_data(attribute));
	std::size_t size = static_cast<std::size_t>(blobmsg_data_len(attribute));
	switch (field.type) {
	case BLOBMSG_TYPE_STRING:
		field.text = std::string(reinterpret_cast<const char *>(value),
					 strnlen(reinterpret_cast<const char *>(value), size));
		break;
	case BLOBMSG_TYPE_TABLE:
	case BLOBMSG_TYPE_ARRAY:
		field.members = read_list(value, size);
		break;
	default:
		field.number = read_integer(value, size);
	}
	return field;
}

Fields read_list(const unsigned char *data, std::size_t size)
{
	Fields fields;
	while (size >= sizeof(blob_attr)) {
		auto *attribute =
			const_cast<blob_attr *>(reinterpret_cast<const blob_attr *>(data));
		std::size_t padded = blob_pad_len(attribute);
		if (padded < sizeof(blob_attr) || padded > size ||
		    !blobmsg_check_attr(attribute, false)) {
			break;
		}
		fields.push_back(read_field(attribute));
		data += padded;
		size -= padded;
	}
	return fields;
}

} // namespace

Field string_field(std::string_view name, std::string_view value)
{
	return {.name = std::string(name), .type = BLOBMSG_TYPE_STRING, .text = std::string(value)};
}

Field int32_field(std::string_view name, std::int32_t value)
{
	return integer_field(name, BLOBMSG_TYPE_INT32, value);
}

Field int64_field(std::string_view name, std::int64_t value)
{
	return integer_field(name, BLOBMSG_TYPE_INT64, value);
}

Field int16_field(std::string_view name, std::int16_t value)
{
	return integer_field(name, BLOBMSG_TYPE_INT16, value);
}

Field bool_field(std::string_view name, bool value)
{
	return integer_field(name, BLOBMSG_TYPE_INT8, value ? 1 : 0);
}

Field table_field(std::string_view name, Fields members)
{
	return {.name = std::string(name),
		.type = BLOBMSG_TYPE_TABLE,
		.members = std::move(members)};
}

const Field *find_field(const Fields &fields, std::string_view name)
{
	for (const Field &field : fields) {
		if (field.name == name) {
			return &field;
		}
	}
	return nullptr;
}

std::string text_of(const Fields &fields, std::string_view name)
{
	const Field *field = find_field(fields, name);
	return field != nullptr && field->type == BLOBMSG_TYPE_STRING ? field->text : "";
}

void append_fields(blob_buf *buffer, const Fields &fields)
{
	for (const Field &field : fields) {
		append_field(buffer, field);
	}
}

Fields read_fields(const blob_attr *message)
{
	if (message == nullptr) {
		return {};
	}
	return read_list(static_cast<const unsigned char *>(blob_data(message)), blob_len(message));
}

std::ostream &operator<<(std::ostream &out, const Field &field)
{
	out << '"' << field.name << "\": ";
	switch (field.type) {
	case BLOBMSG_TYPE_STRING:
		return out << '"' << field.text << '"';
	case BLOBMSG_TYPE_INT64:
		return out << field.number << " (int64)";
	case BLOBMSG_TYPE_INT32:
		return out << field.number << " (int32)";
	case BLOBMSG_TYPE_TABLE:
	case BLOBMSG_TYPE_ARRAY:
		out << (field.type == BLOBMSG_TYPE_TABLE ? "{ " : "[ ");
		for (const Field &member : field.members) {
			out << member << ' ';
		}
		return out << (field.type == BLOBMSG_TYPE_TABLE ? "}" : "]");
	default:
		return out << field.number << " (type " << field.type << ")";
	}
}

} // namespace router_test
