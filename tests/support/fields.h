// SPDX-License-Identifier: ISC
// Bus messages as plain values: an ordered list of named, typed fields, so that a test can compare
// a whole reply, order and types included, by one EXPECT_EQ. Builds arguments and reads replies;
// knows nothing of connections.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

struct blob_attr;
struct blob_buf;

namespace router_test
{

struct Field;
using Fields = std::vector<Field>;

struct Field {
	std::string name;
	int type = 0;		 // BLOBMSG_TYPE_*
	std::string text = {};	 // value of a string
	std::int64_t number = 0; // value of an integer or boolean
	Fields members = {};	 // members of a table or array

	bool operator==(const Field &) const = default;
};

Field string_field(std::string_view name, std::string_view value);
Field int32_field(std::string_view name, std::int32_t value);
Field int64_field(std::string_view name, std::int64_t value);
Field int16_field(std::string_view name, std::int16_t value);
Field bool_field(std::string_view name, bool value); // also BLOBMSG_TYPE_INT8
Field table_field(std::string_view name, Fields members);

// The first field of that name, or nullptr.
const Field *find_field(const Fields &fields, std::string_view name);
// Its text; empty when there is no such string field.
std::string text_of(const Fields &fields, std::string_view name);

// To and from the bus's format. `read_fields` reads the members of a message (the list that a
// handler or data callback is given); it stops at the first malformed one.
void append_fields(blob_buf *buffer, const Fields &fields);
Fields read_fields(const blob_attr *message);

// {"name": "text", "n": 1 (int64)}: what a failed comparison prints.
std::ostream &operator<<(std::ostream &out, const Field &field);

// What `check` answers when the server could not be asked, or said nothing of use.
inline const Fields failed_check = {
	string_field("version", ""),
	string_field("buildtime", ""),
	string_field("releasenotes", ""),
	string_field("force", ""),
	string_field("need_update", ""),
	string_field("error_code", "1"),
	string_field("error_message", "Error on checking update avialability"),
};

} // namespace router_test
