// SPDX-License-Identifier: ISC
#include "ubusd_message.h"

#include <cstring>

namespace ubusd
{

namespace
{

constexpr size_t head_len = sizeof(ubus_msghdr) + sizeof(blob_attr);

bool has_valid_size(const blob_attr *attr)
{
	const std::string_view value = payload(attr);

	switch (blob_id(attr)) {
	case UBUS_ATTR_STATUS:
	case UBUS_ATTR_OBJID:
	case UBUS_ATTR_OBJTYPE:
	case UBUS_ATTR_TARGET:
		return value.size() == sizeof(uint32_t);
	case UBUS_ATTR_OBJPATH:
	case UBUS_ATTR_METHOD:
	case UBUS_ATTR_USER:
	case UBUS_ATTR_GROUP:
		// A zero further in front would make two strings of one.
		return !value.empty() && value.find('\0') == value.size() - 1;
	case UBUS_ATTR_ACTIVE:
	case UBUS_ATTR_NO_REPLY:
		return value.size() == sizeof(uint8_t);
	default:
		return true;
	}
}

std::string wire_form(const ubus_msghdr &head, const blob_attr *body)
{
	std::string wire(sizeof(head) + blob_raw_len(body), '\0');

	std::memcpy(wire.data(), &head, sizeof(head));
	std::memcpy(wire.data() + sizeof(head), body, blob_raw_len(body));
	return wire;
}

} // namespace

std::string_view payload(const blob_attr *attr)
{
	return {static_cast<const char *>(blob_data(attr)), blob_len(attr)};
}

bool Message::parse()
{
	const auto *body = reinterpret_cast<const blob_attr *>(body_.data());

	if (head_.version != 0 || blob_id(body) != 0 || blob_is_extended(body))
		return false;
	size_t left = blob_len(body);
	const auto *attr = static_cast<const blob_attr *>(blob_data(body));
	while (left > 0) {
		if (left < sizeof(blob_attr) || blob_raw_len(attr) < sizeof(blob_attr) ||
		    blob_pad_len(attr) > left || blob_is_extended(attr) || !has_valid_size(attr))
			return false;
		if (blob_id(attr) < attrs_.size())
			attrs_[blob_id(attr)] = attr;
		left -= blob_pad_len(attr);
		attr = blob_next(attr);
	}
	return true;
}

std::optional<uint32_t> Message::number(ubus_msg_attr id) const
{
	if (!attrs_[id])
		return std::nullopt;
	return blob_get_u32(attrs_[id]);
}

std::optional<std::string_view> Message::text(ubus_msg_attr id) const
{
	if (!attrs_[id])
		return std::nullopt;
	return payload(attrs_[id]).substr(0, blob_len(attrs_[id]) - 1);
}

std::string Message::forwarded(uint32_t peer, uint8_t type) const
{
	ubus_msghdr head = head_;

	head.type = type;
	head.peer = cpu_to_be32(peer);
	return wire_form(head, reinterpret_cast<const blob_attr *>(body_.data()));
}

void MessageReader::append(std::span<const std::byte> bytes)
{
	bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<ptrdiff_t>(taken_));
	taken_ = 0;
	bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
}

std::optional<Message> MessageReader::next()
{
	const std::span<const std::byte> rest = std::span(bytes_).subspan(taken_);

	if (malformed_ || rest.size() < head_len)
		return std::nullopt;
	blob_attr outer{};
	std::memcpy(&outer, rest.data() + sizeof(ubus_msghdr), sizeof(outer));
	const size_t body_len = blob_raw_len(&outer);
	if (body_len < sizeof(blob_attr) || body_len > max_attr_len) {
		malformed_ = true;
		return std::nullopt;
	}
	if (rest.size() < sizeof(ubus_msghdr) + body_len)
		return std::nullopt;
	Message message;
	std::memcpy(&message.head_, rest.data(), sizeof(message.head_));
	message.body_.resize((body_len + sizeof(uint32_t) - 1) / sizeof(uint32_t));
	std::memcpy(message.body_.data(), rest.data() + sizeof(ubus_msghdr), body_len);
	taken_ += sizeof(ubus_msghdr) + body_len;
	malformed_ = !message.parse();
	if (malformed_)
		return std::nullopt;
	return message;
}

MessageWriter::MessageWriter()
{
	complete_ = blob_buf_init(&buffer_, 0) == 0;
}

MessageWriter::~MessageWriter()
{
	blob_buf_free(&buffer_);
}

MessageWriter &MessageWriter::number(ubus_msg_attr id, uint32_t value)
{
	complete_ = complete_ && blob_put_u32(&buffer_, id, value);
	return *this;
}

MessageWriter &MessageWriter::text(ubus_msg_attr id, const std::string &value)
{
	return bytes(id, {value.c_str(), value.size() + 1});
}

MessageWriter &MessageWriter::bytes(ubus_msg_attr id, std::string_view value)
{
	complete_ = complete_ &&
		    blob_put(&buffer_, id, value.data(), static_cast<unsigned int>(value.size()));
	return *this;
}

std::string MessageWriter::finish(ubus_msg_type type, uint16_t seq, uint32_t peer) const
{
	ubus_msghdr head{};

	if (!complete_ || blob_raw_len(buffer_.head) > max_attr_len)
		return {};
	head.type = static_cast<uint8_t>(type);
	head.seq = cpu_to_be16(seq);
	head.peer = cpu_to_be32(peer);
	return wire_form(head, buffer_.head);
}

} // namespace ubusd
