// SPDX-License-Identifier: ISC
// The broker with two clients on real sockets. The input is a list of records, each a byte that
// says who does something (bit 0: which client; bit 7: it hangs up), a 16-bit length and that many
// bytes to send. The broker's numbers are random, so an input names them: the aligned word "ID",
// 0, n stands for client n (0, 1) or for what the broker told next, the number of an object or of
// its type (2, 3, ...).
#include <algorithm>
#include <linux/sockios.h>
#include <span>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "fuzz_target.h"
#include "ubusd_broker.h"

namespace
{

using Input = std::span<const std::uint8_t>;

constexpr int client_count = 2;
constexpr int most_passes = 64; // of the loop, for one record

// Whether whoever reads this, without checks of his own, stays within it.
bool is_blobmsg_list(std::string_view list)
{
	while (!list.empty()) {
		const auto *attr = reinterpret_cast<const blob_attr *>(list.data());
		if (!blobmsg_check_attr_len(attr, true, list.size()) ||
		    blob_pad_len(attr) > list.size()) {
			return false;
		}
		list.remove_prefix(blob_pad_len(attr));
	}
	return true;
}

class Bus
{
public:
	Bus()
	{
		for (int &own : sockets_) {
			int ends[2] = {-1, -1};
			require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0,
					   ends) == 0,
				"sockets");
			own = ends[0];
			broker_.welcome(ends[1]);
		}
		receive();
	}
	~Bus()
	{
		for (int client = 0; client < client_count; client++) {
			hang_up(client);
		}
	}
	Bus(const Bus &) = delete;
	Bus &operator=(const Bus &) = delete;

	void hang_up(int client)
	{
		if (sockets_[client] >= 0) {
			close(sockets_[client]);
			sockets_[client] = -1;
		}
		uloop_run_timeout(0);
	}

	void send(int client, Input bytes)
	{
		const std::vector<std::uint8_t> wire = with_numbers(bytes);
		if (sockets_[client] < 0 ||
		    ::send(sockets_[client], wire.data(), wire.size(), MSG_NOSIGNAL) < 0) {
			return;
		}
		for (int pass = 0; pass < most_passes && unread(client); pass++) {
			uloop_run_timeout(0);
			receive();
		}
	}

	// What the broker has sent must be whole, well-formed messages.
	void receive()
	{
		for (int client = 0; client < client_count; client++) {
			std::byte portion[65536];
			ssize_t got = 0;
			while ((got = recv(sockets_[client], portion, sizeof(portion), 0)) > 0) {
				readers_[client].append({portion, static_cast<std::size_t>(got)});
			}
			while (const auto message = readers_[client].next()) {
				learn(client, *message);
			}
			require(!readers_[client].malformed(), "the broker's messages are sound");
		}
	}

private:
	bool unread(int client) const
	{
		int bytes = 0;
		return ioctl(sockets_[client], SIOCOUTQ, &bytes) == 0 && bytes > 0;
	}

	void learn(int client, const ubusd::Message &message)
	{
		if (message.type() == UBUS_MSG_HELLO) {
			numbers_[static_cast<std::size_t>(client)] = message.peer();
		}
		if (message.type() != UBUS_MSG_DATA) {
			return;
		}
		if (const blob_attr *signature = message.attribute(UBUS_ATTR_SIGNATURE)) {
			require(is_blobmsg_list(ubusd::payload(signature)),
				"the broker tells sound signatures");
		}
		for (const auto attribute : {UBUS_ATTR_OBJID, UBUS_ATTR_OBJTYPE}) {
			const auto number = message.number(attribute);
			if (number && std::find(numbers_.begin(), numbers_.end(), *number) ==
					      numbers_.end()) {
				numbers_.push_back(*number);
			}
		}
	}

	std::vector<std::uint8_t> with_numbers(Input bytes) const
	{
		std::vector<std::uint8_t> wire(bytes.begin(), bytes.end());
		for (std::size_t at = 0; at + 4 <= wire.size(); at += 4) {
			const std::size_t which = wire[at + 3];
			if (wire[at] == 'I' && wire[at + 1] == 'D' && wire[at + 2] == 0 &&
			    which < numbers_.size()) {
				for (std::size_t i = 0; i < 4; i++) {
					wire[at + i] = static_cast<std::uint8_t>(numbers_[which] >>
										 (24 - 8 * i));
				}
			}
		}
		return wire;
	}

	ubusd::Broker broker_;
	int sockets_[client_count] = {-1, -1};
	ubusd::MessageReader readers_[client_count];
	std::vector<std::uint32_t> numbers_ = {0, 0};
};

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	static const int loop = uloop_init();
	require(loop == 0, "event loop");
	Bus bus;
	for (Input rest(data, size); rest.size() >= 3;) {
		const int client = rest[0] & 1;
		const bool hangs_up = (rest[0] & 0x80) != 0;
		const std::size_t said = static_cast<std::size_t>(rest[1]) << 8 | rest[2];
		const std::size_t length = std::min(said, rest.size() - 3);
		bus.send(client, rest.subspan(3, length));
		if (hangs_up) {
			bus.hang_up(client);
		}
		rest = rest.subspan(3 + length);
	}
	return 0;
}
