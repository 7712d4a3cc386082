// SPDX-License-Identifier: ISC
#include "support/connection.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace router_test
{
namespace
{

constexpr std::size_t largest_head = 65536;

sockaddr_in address_of(int descriptor, decltype(getsockname) *which)
{
	sockaddr_in address = {};
	socklen_t size = sizeof(address);
	which(descriptor, reinterpret_cast<sockaddr *>(&address), &size);
	return address;
}

// The port and the address, which stands in the kernel's byte order: under an emulator that is
// not the order of this program.
std::string table_form(const sockaddr_in &address, bool swapped)
{
	const std::uint32_t plain = address.sin_addr.s_addr;
	std::array<char, 16> text;
	std::snprintf(text.data(), text.size(), "%08X:%04X",
		      swapped ? __builtin_bswap32(plain) : plain, ntohs(address.sin_port));
	return text.data();
}

// Bytes that the other end of a local connection has received and its program has not read: the
// kernel lists both ends in its table. 0 when the other end is gone.
unsigned long unread_by_peer(int descriptor)
{
	const sockaddr_in peer = address_of(descriptor, getpeername);
	const sockaddr_in own = address_of(descriptor, getsockname);
	const std::string ends = table_form(peer, false) + " " + table_form(own, false);
	const std::string swapped = table_form(peer, true) + " " + table_form(own, true);
	std::ifstream table(access("/realproc/net/tcp", R_OK) == 0 ? "/realproc/net/tcp"
								   : "/proc/net/tcp");
	std::string line;
	while (std::getline(table, line)) {
		const std::size_t at = std::min(line.find(ends), line.find(swapped));
		unsigned state = 0;
		unsigned long sending = 0;
		unsigned long received = 0;
		if (at != std::string::npos &&
		    std::sscanf(line.c_str() + at + ends.size(), "%x %lx:%lx", &state, &sending,
				&received) == 3) {
			return received;
		}
	}
	return 0;
}

} // namespace

Connection::~Connection()
{
	close(descriptor_);
}

Connection::Wait Connection::wait_for(short events, int limit_ms) const
{
	std::array<pollfd, 2> watched = {{{descriptor_, events, 0}, {stop_, POLLIN, 0}}};
	poll(watched.data(), watched.size(), limit_ms);
	return watched[1].revents != 0 ? Wait::stopped : Wait::ready;
}

bool Connection::hung_up() const
{
	pollfd watched = {.fd = descriptor_, .events = POLLRDHUP, .revents = 0};
	return poll(&watched, 1, 0) > 0;
}

std::string Connection::read_head()
{
	std::string head;
	std::array<char, 4096> chunk;
	while (head.find("\r\n\r\n") == std::string::npos && head.size() < largest_head) {
		if (wait_for(POLLIN, -1) == Wait::stopped) {
			return {};
		}
		ssize_t count = recv(descriptor_, chunk.data(), chunk.size(), MSG_DONTWAIT);
		if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
			return {};
		}
		head.append(chunk.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
	}
	return head;
}

bool Connection::send(std::string_view bytes)
{
	while (!bytes.empty()) {
		ssize_t count = ::send(descriptor_, bytes.data(), bytes.size(),
				       MSG_NOSIGNAL | MSG_DONTWAIT);
		if (count > 0) {
			bytes.remove_prefix(static_cast<std::size_t>(count));
			continue;
		}
		if (errno != EAGAIN && errno != EINTR) {
			return false;
		}
		if (wait_for(POLLOUT, -1) == Wait::stopped) {
			return false;
		}
	}
	return true;
}

bool Connection::wait_until_read()
{
	// No event tells that the other end has read; the kernel's table is looked at every
	// millisecond instead.
	constexpr int pace_ms = 1;
	for (;;) {
		int unacknowledged = 0;
		ioctl(descriptor_, SIOCOUTQ, &unacknowledged);
		if (hung_up()) {
			return false;
		}
		if (unacknowledged == 0 && unread_by_peer(descriptor_) == 0) {
			return true;
		}
		if (wait_for(0, pace_ms) == Wait::stopped) {
			return false;
		}
	}
}

void Connection::wait_until_closed()
{
	std::array<char, 4096> chunk;
	while (wait_for(POLLIN, -1) != Wait::stopped) {
		ssize_t count = recv(descriptor_, chunk.data(), chunk.size(), MSG_DONTWAIT);
		if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
			return;
		}
	}
}

void Connection::finish()
{
	shutdown(descriptor_, SHUT_WR);
}

void Connection::reset()
{
	linger at_once = {.l_onoff = 1, .l_linger = 0};
	setsockopt(descriptor_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
}

} // namespace router_test
