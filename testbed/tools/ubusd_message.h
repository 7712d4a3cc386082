// SPDX-License-Identifier: ISC
// Messages of the bus as the broker sees them: cut out of a byte stream and checked, or
// put together for a client. Nothing here knows who sends what to whom.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bus_headers.h"

namespace ubusd
{

// The largest attribute of a message, its head included; a client that says more is
// not believed.
constexpr size_t max_attr_len = 1u << 20;

// One message of a client. Every attribute lies within it and has its type's size; a
// string ends in its zero. DATA and SIGNATURE are not looked into.
class Message
{
public:
	[[nodiscard]] uint8_t type() const
	{
		return head_.type;
	}
	[[nodiscard]] uint16_t seq() const
	{
		return be16_to_cpu(head_.seq);
	}
	[[nodiscard]] uint32_t peer() const
	{
		return be32_to_cpu(head_.peer);
	}

	// Nothing when the message has no such attribute. The views last as the message.
	[[nodiscard]] std::optional<uint32_t> number(ubus_msg_attr id) const;
	[[nodiscard]] std::optional<std::string_view> text(ubus_msg_attr id) const;
	[[nodiscard]] const blob_attr *attribute(ubus_msg_attr id) const
	{
		return attrs_[id];
	}

	// The message's attributes as they came, under another head.
	[[nodiscard]] std::string forwarded(uint32_t peer, uint8_t type) const;

private:
	friend class MessageReader;
	[[nodiscard]] bool parse();

	ubus_msghdr head_{};
	std::vector<uint32_t> body_; // words, so that attributes are aligned
	std::array<const blob_attr *, UBUS_ATTR_MAX> attrs_{};
};

// Cuts one client's byte stream into messages.
class MessageReader
{
public:
	void append(std::span<const std::byte> bytes);

	// The next whole message, if there is one. Nothing comes after the first that is
	// malformed.
	[[nodiscard]] std::optional<Message> next();
	[[nodiscard]] bool malformed() const
	{
		return malformed_;
	}

private:
	std::vector<std::byte> bytes_;
	size_t taken_ = 0; // bytes in front that next() has returned
	bool malformed_ = false;
};

// Puts one message together.
class MessageWriter
{
public:
	MessageWriter();
	~MessageWriter();
	MessageWriter(const MessageWriter &) = delete;
	MessageWriter &operator=(const MessageWriter &) = delete;

	MessageWriter &number(ubus_msg_attr id, uint32_t value);
	MessageWriter &text(ubus_msg_attr id, const std::string &value);
	MessageWriter &bytes(ubus_msg_attr id, std::string_view value);

	// The wire form; empty when it is larger than a message may be.
	[[nodiscard]] std::string finish(ubus_msg_type type, uint16_t seq, uint32_t peer) const;

private:
	blob_buf buffer_{};
	bool complete_ = true;
};

// An attribute's payload.
[[nodiscard]] std::string_view payload(const blob_attr *attr);

} // namespace ubusd
