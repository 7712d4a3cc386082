// SPDX-License-Identifier: ISC
// The bus's wire format for tests, written down a second time and independently of the
// libraries under test: messages as strings of bytes, right ones and wrong ones.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace bus_wire
{

enum Type : std::uint8_t { HELLO = 0, STATUS = 1, DATA = 2, ADD_OBJECT = 6 };
enum Attribute : std::uint8_t { A_STATUS = 1, A_OBJPATH = 2, A_OBJID = 3, A_OBJTYPE = 5 };

inline std::string big_endian(std::uint64_t value, int bytes)
{
	std::string text;

	while (bytes-- > 0) {
		text += static_cast<char>(value >> (8 * bytes));
	}
	return text;
}

inline std::uint32_t read_big_endian(std::string_view bytes)
{
	std::uint32_t value = 0;

	for (const char c : bytes) {
		value = value << 8 | static_cast<unsigned char>(c);
	}
	return value;
}

inline std::string padded(std::string bytes)
{
	bytes.resize((bytes.size() + 3) / 4 * 4, '\0');
	return bytes;
}

inline std::string attribute(int id, std::string_view value)
{
	const auto head =
		static_cast<std::uint32_t>(id) << 24 | static_cast<std::uint32_t>(value.size() + 4);

	return padded(big_endian(head, 4) + std::string(value));
}

inline std::string number(int id, std::uint32_t value)
{
	return attribute(id, big_endian(value, 4));
}

inline std::string message(int type, int seq, std::uint32_t peer, const std::string &body = "")
{
	return std::string(1, '\0') + static_cast<char>(type) +
	       big_endian(static_cast<std::uint64_t>(seq), 2) + big_endian(peer, 4) +
	       big_endian(body.size() + 4, 4) + body;
}

// A message that was received. Attributes by id, without padding.
struct Received {
	int type = -1;
	int seq = -1;
	std::uint32_t peer = 0;
	std::map<int, std::string> attributes;

	// Strings without their zero; empty when there is none.
	std::string text(int id) const
	{
		const auto found = attributes.find(id);

		return found == attributes.end()
			       ? ""
			       : found->second.substr(0, found->second.find('\0'));
	}
};

// `bytes` is one whole message.
inline Received parse(std::string_view bytes)
{
	Received received;

	received.type = static_cast<unsigned char>(bytes[1]);
	received.seq = static_cast<int>(read_big_endian(bytes.substr(2, 2)));
	received.peer = read_big_endian(bytes.substr(4, 4));
	bytes.remove_prefix(12);
	while (bytes.size() >= 4) {
		const std::uint32_t word = read_big_endian(bytes.substr(0, 4));
		const std::size_t length = word & 0xffffff;

		received.attributes[static_cast<int>(word >> 24)] = bytes.substr(4, length - 4);
		bytes.remove_prefix(std::min(bytes.size(), (length + 3) / 4 * 4));
	}
	return received;
}

} // namespace bus_wire
