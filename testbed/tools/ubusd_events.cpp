// SPDX-License-Identifier: ISC
// The broker's own object: registering for events, sending them.
#include <algorithm>
#include <array>

#include "ubusd_broker.h"

namespace ubusd
{

namespace
{

template<size_t count>
std::array<blob_attr *, count> parse(const std::array<blobmsg_policy, count> &policy,
				     const blob_attr *data)
{
	std::array<blob_attr *, count> fields{};

	blobmsg_parse(policy.data(), static_cast<int>(count), fields.data(), blob_data(data),
		      static_cast<unsigned int>(blob_len(data)));
	return fields;
}

class EventData
{
public:
	explicit EventData(const Object &object)
	{
		blob_buf_init(&buffer_, 0);
		blobmsg_add_u32(&buffer_, "id", object.id);
		blobmsg_add_string(&buffer_, "path", object.path.c_str());
	}
	~EventData()
	{
		blob_buf_free(&buffer_);
	}
	EventData(const EventData &) = delete;
	EventData &operator=(const EventData &) = delete;

	[[nodiscard]] std::string_view content() const
	{
		return payload(buffer_.head);
	}

private:
	blob_buf buffer_{};
};

} // namespace

ubus_msg_status Broker::answer_event_call(Client &client, const Message &message)
{
	const auto method = message.text(UBUS_ATTR_METHOD);
	const blob_attr *data = message.attribute(UBUS_ATTR_DATA);

	if (!data)
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (method == "register")
		return register_pattern(client, data);
	if (method == "send")
		return send_event(client, data);
	return UBUS_STATUS_INVALID_COMMAND;
}

ubus_msg_status Broker::register_pattern(Client &client, const blob_attr *data)
{
	constexpr std::array<blobmsg_policy, 2> policy{
		{{"object", BLOBMSG_TYPE_INT32}, {"pattern", BLOBMSG_TYPE_STRING}}};
	const auto [id, pattern] = parse(policy, data);

	if (!id || !pattern)
		return UBUS_STATUS_INVALID_ARGUMENT;
	Object *object = objects_.find(blobmsg_get_u32(id));
	if (!object)
		return UBUS_STATUS_NOT_FOUND;
	const std::string wanted = blobmsg_get_string(pattern);
	if (object->owner != &client || wanted.empty())
		return UBUS_STATUS_PERMISSION_DENIED;
	object->patterns.push_back(wanted);
	return UBUS_STATUS_OK;
}

ubus_msg_status Broker::send_event(Client &client, const blob_attr *data)
{
	constexpr std::array<blobmsg_policy, 2> policy{
		{{"id", BLOBMSG_TYPE_STRING}, {"data", BLOBMSG_TYPE_TABLE}}};
	const auto [id, content] = parse(policy, data);

	if (!id || !content)
		return UBUS_STATUS_INVALID_ARGUMENT;
	const std::string event = blobmsg_get_string(id);
	// What happens on the bus is for the broker to say.
	if (event.starts_with("ubus."))
		return UBUS_STATUS_PERMISSION_DENIED;
	deliver(event,
		{static_cast<const char *>(blobmsg_data(content)), blobmsg_data_len(content)},
		&client);
	return UBUS_STATUS_OK;
}

void Broker::announce(const char *event, const Object &object)
{
	const EventData data(object);

	deliver(event, data.content(), nullptr);
}

// An object gets an event once, however many of its patterns match.
void Broker::deliver(const std::string &event, std::string_view data, const Client *sender)
{
	for (const auto &[id, object] : objects_.all()) {
		const auto &patterns = object->patterns;
		const auto wants = [&event](const std::string &pattern) {
			return matches(pattern, event);
		};

		if (object->owner == sender ||
		    std::none_of(patterns.begin(), patterns.end(), wants))
			continue;
		object->owner->send(MessageWriter()
					    .number(UBUS_ATTR_OBJID, id)
					    .text(UBUS_ATTR_METHOD, event)
					    .bytes(UBUS_ATTR_DATA, data)
					    .finish(UBUS_MSG_INVOKE, ++event_seq_, 0));
	}
}

} // namespace ubusd
