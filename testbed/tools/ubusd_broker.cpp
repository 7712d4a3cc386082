// SPDX-License-Identifier: ISC
#include "ubusd_broker.h"

namespace ubusd
{

void Broker::welcome(int socket)
{
	const uint32_t id =
		new_id(1, [this](uint32_t candidate) { return clients_.contains(candidate); });
	auto &client = clients_[id] = std::make_unique<Client>(*this, socket, id);

	client->send(MessageWriter().finish(UBUS_MSG_HELLO, 0, id));
	drop_lost_clients();
}

void Broker::client_lost(Client &client)
{
	lost_.push_back(client.id());
}

// Telling the others about its objects may lose more of them.
void Broker::drop_lost_clients()
{
	while (!lost_.empty()) {
		const auto found = clients_.find(lost_.back());

		lost_.pop_back();
		for (const Object *object : objects_.owned_by(*found->second))
			remove_object(*object);
		clients_.erase(found);
	}
}

void Broker::remove_object(const Object &object)
{
	if (!object.path.empty())
		announce("ubus.object.remove", object);
	objects_.remove(object);
}

void Broker::handle(Client &client, const Message &message)
{
	if (message.type() == UBUS_MSG_STATUS || message.type() == UBUS_MSG_DATA)
		return relay_answer(client, message);
	const Outcome outcome = answer(client, message);
	if (outcome) {
		client.send(MessageWriter()
				    .number(UBUS_ATTR_STATUS, *outcome)
				    .finish(UBUS_MSG_STATUS, message.seq(), message.peer()));
	}
}

Broker::Outcome Broker::answer(Client &client, const Message &message)
{
	switch (message.type()) {
	case UBUS_MSG_LOOKUP:
		return answer_lookup(client, message);
	case UBUS_MSG_INVOKE:
		return relay_call(client, message);
	case UBUS_MSG_ADD_OBJECT:
		return answer_add(client, message);
	default:
		return UBUS_STATUS_NOT_SUPPORTED;
	}
}

ubus_msg_status Broker::answer_lookup(Client &client, const Message &message)
{
	const auto path = message.text(UBUS_ATTR_OBJPATH);
	if (path && path->empty())
		return UBUS_STATUS_INVALID_ARGUMENT;
	const auto found = objects_.matching(path.value_or("*"));

	for (const Object *object : found) {
		MessageWriter data;
		data.text(UBUS_ATTR_OBJPATH, object->path).number(UBUS_ATTR_OBJID, object->id);
		if (object->type) {
			data.number(UBUS_ATTR_OBJTYPE, object->type->id)
				.bytes(UBUS_ATTR_SIGNATURE, object->type->signature);
		}
		client.send(data.finish(UBUS_MSG_DATA, message.seq(), message.peer()));
	}
	return path && found.empty() ? UBUS_STATUS_NOT_FOUND : UBUS_STATUS_OK;
}

ubus_msg_status Broker::answer_add(Client &client, const Message &message)
{
	const auto path = message.text(UBUS_ATTR_OBJPATH);
	const blob_attr *signature = message.attribute(UBUS_ATTR_SIGNATURE);
	const auto known_type = message.number(UBUS_ATTR_OBJTYPE);
	std::shared_ptr<ObjectType> type;

	if (path && path->empty())
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (known_type) {
		type = objects_.find_type(*known_type);
	} else if (signature) {
		type = objects_.new_type(payload(signature));
	}
	const Object *object = objects_.add(client, path.value_or(""), type);
	if (!object)
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (path)
		announce("ubus.object.add", *object);
	MessageWriter data;
	data.number(UBUS_ATTR_OBJID, object->id);
	if (type && !known_type)
		data.number(UBUS_ATTR_OBJTYPE, type->id);
	client.send(data.finish(UBUS_MSG_DATA, message.seq(), message.peer()));
	return UBUS_STATUS_OK;
}

Broker::Outcome Broker::relay_call(Client &client, const Message &message)
{
	const auto id = message.number(UBUS_ATTR_OBJID);
	const auto method = message.text(UBUS_ATTR_METHOD);
	const blob_attr *data = message.attribute(UBUS_ATTR_DATA);

	if (!id || !method)
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (*id == UBUS_SYSTEM_OBJECT_EVENT)
		return answer_event_call(client, message);
	const Object *object = objects_.find(*id);
	if (!object)
		return UBUS_STATUS_NOT_FOUND;
	if (!data)
		return UBUS_STATUS_INVALID_ARGUMENT;
	MessageWriter call;
	call.number(UBUS_ATTR_OBJID, *id)
		.text(UBUS_ATTR_METHOD, std::string(*method))
		.text(UBUS_ATTR_USER, client.user())
		.text(UBUS_ATTR_GROUP, client.group())
		.bytes(UBUS_ATTR_DATA, payload(data));
	std::string wire = call.finish(UBUS_MSG_INVOKE, message.seq(), client.id());
	// The caller's names can make a full message too long.
	if (wire.empty())
		return UBUS_STATUS_INVALID_ARGUMENT;
	object->owner->send(std::move(wire));
	return std::nullopt;
}

// Only an object's owner can speak for it. The caller may be gone by now.
void Broker::relay_answer(const Client &client, const Message &message)
{
	const auto id = message.number(UBUS_ATTR_OBJID);
	const Object *object = id ? objects_.find(*id) : nullptr;
	const auto caller = clients_.find(message.peer());

	if (object && object->owner == &client && caller != clients_.end())
		caller->second->send(message.forwarded(*id, message.type()));
}

} // namespace ubusd
