// SPDX-License-Identifier: ISC
// What the daemon's code sends to the bus, read by the test instead of the broker: for as long as
// the object lives, the connection's descriptor leads here.
#pragma once

#include <cstdint>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "base/bus.h"

namespace router_test
{

struct SentMessage {
	int type = 0; // UBUS_MSG_STATUS, UBUS_MSG_DATA, ...
	std::uint16_t seq = 0;
	std::uint32_t peer = 0;
};

class SentMessages
{
public:
	SentMessages() : broker_(fcntl(descriptor(), F_DUPFD_CLOEXEC, 0))
	{
		int ends[2];
		if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0) {
			dup3(ends[0], descriptor(), O_CLOEXEC);
			close(ends[0]);
			reader_ = ends[1];
		}
	}
	~SentMessages()
	{
		dup3(broker_, descriptor(), O_CLOEXEC);
		close(broker_);
		close(reader_);
	}
	SentMessages(const SentMessages &) = delete;
	SentMessages &operator=(const SentMessages &) = delete;

	// Those since the last call.
	std::vector<SentMessage> take() const
	{
		constexpr std::size_t head_size = 8;
		std::vector<SentMessage> messages;
		std::string bytes;
		char piece[4096];
		for (ssize_t got; (got = recv(reader_, piece, sizeof(piece), MSG_DONTWAIT)) > 0;) {
			bytes.append(piece, static_cast<std::size_t>(got));
		}
		// Head: version, type, seq, peer; then an attribute, whose length covers itself.
		for (std::size_t at = 0; at + head_size + 4 <= bytes.size();) {
			messages.push_back({number(bytes, at + 1, 1),
					    static_cast<std::uint16_t>(number(bytes, at + 2, 2)),
					    static_cast<std::uint32_t>(number(bytes, at + 4, 4))});
			at += head_size +
			      (static_cast<std::size_t>(number(bytes, at + 8, 4)) & 0xffffff);
		}
		return messages;
	}

private:
	static int descriptor()
	{
		return fwupdate::bus_connection->sock.fd;
	}
	static int number(const std::string &bytes, std::size_t at, std::size_t size)
	{
		std::uint32_t value = 0;
		for (std::size_t i = 0; i < size; i++) {
			value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
		}
		return static_cast<int>(value);
	}

	int broker_;
	int reader_ = -1;
};

} // namespace router_test
