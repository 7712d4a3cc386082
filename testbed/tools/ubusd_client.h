// SPDX-License-Identifier: ISC
// One connection to the broker: its socket, what it has sent so far, what it has yet to
// take, and who is behind it. The broker owns it and is told of its messages and of its
// end; what a message means is not known here.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include <sys/types.h>

#include "bus_headers.h"
#include "ubusd_message.h"

namespace ubusd
{

class Broker;

class Client
{
public:
	// Bytes that may wait for a client to read them. More than the answer to any
	// sensible lookup; who falls further behind is dropped.
	static constexpr size_t max_queued = 16u << 20;

	// Takes the socket, which must not block, and watches it.
	Client(Broker &broker, int socket, uint32_t id);
	~Client();
	Client(const Client &) = delete;
	Client &operator=(const Client &) = delete;

	[[nodiscard]] uint32_t id() const
	{
		return id_;
	}
	[[nodiscard]] const std::string &user() const
	{
		return user_;
	}
	[[nodiscard]] const std::string &group() const
	{
		return group_;
	}

	// Sends now what the socket takes, and the rest when it can. An empty message, and
	// any message to a client that is lost already, is dropped.
	void send(std::string wire);

	// Whether the broker was told that this client is to be dropped.
	[[nodiscard]] bool lost() const
	{
		return lost_;
	}

private:
	struct Watch {
		uloop_fd fd; // first: the loop's callback gets this address
		Client *client;
	};

	static void on_ready(uloop_fd *fd, unsigned int events);
	void identify();
	void read_messages();
	[[nodiscard]] bool read_some();
	void flush();
	void watch_for(unsigned int events);
	void lose();

	Broker &broker_;
	Watch watch_{};
	uint32_t id_;
	std::string user_;
	std::string group_;
	MessageReader reader_;
	std::deque<std::string> queue_;
	size_t queued_ = 0; // bytes in queue_
	size_t sent_ = 0;   // bytes of queue_'s first message that are gone
	bool waits_for_room_ = false;
	bool lost_ = false;
};

} // namespace ubusd
