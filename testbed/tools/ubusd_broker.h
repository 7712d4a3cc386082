// SPDX-License-Identifier: ISC
// The bus: who is connected, which objects there are, and what each message does. The
// program hands it new sockets; clients hand it their messages and tell of their end.
//
// A client that is lost stays in place until drop_lost_clients, at the end of the loop's
// callback, so that nobody who is still at work with it is left with a dead one.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "ubusd_client.h"
#include "ubusd_objects.h"

namespace ubusd
{

class Broker
{
public:
	// Takes a connected socket, which must not block, and greets its client.
	void welcome(int socket);

	// Does what the message asks for and answers it.
	void handle(Client &client, const Message &message);

	void client_lost(Client &client);
	void drop_lost_clients();

private:
	// How a request went; nothing when somebody else will answer it.
	using Outcome = std::optional<ubus_msg_status>;

	[[nodiscard]] Outcome answer(Client &client, const Message &message);
	[[nodiscard]] ubus_msg_status answer_lookup(Client &client, const Message &message);
	[[nodiscard]] ubus_msg_status answer_add(Client &client, const Message &message);
	[[nodiscard]] Outcome relay_call(Client &client, const Message &message);
	void relay_answer(const Client &client, const Message &message);
	void remove_object(const Object &object);

	// Calls on the broker's own object: events.
	[[nodiscard]] ubus_msg_status answer_event_call(Client &client, const Message &message);
	[[nodiscard]] ubus_msg_status register_pattern(Client &client, const blob_attr *data);
	[[nodiscard]] ubus_msg_status send_event(Client &client, const blob_attr *data);
	void announce(const char *event, const Object &object);

	// `sender` gets none of its own; null for the broker.
	void deliver(const std::string &event, std::string_view data, const Client *sender);

	std::map<uint32_t, std::unique_ptr<Client>> clients_;
	std::vector<uint32_t> lost_; // ids
	ObjectTable objects_;
	uint16_t event_seq_ = 0;
};

} // namespace ubusd
