// SPDX-License-Identifier: ISC
// A bus of a test's own, served by the built broker, and clients of it that speak in
// bytes: they can say what no library would.
#pragma once

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "bus_wire.h"
#include "tool_test.h"

namespace bus_test
{

inline int connect_to(const std::string &path)
{
	sockaddr_un address{};
	const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);

	address.sun_family = AF_UNIX;
	path.copy(address.sun_path, sizeof(address.sun_path) - 1);
	if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
		close(fd);
		return -1;
	}
	return fd;
}

// Sends bytes with a copy of a descriptor attached.
inline void send_with_descriptor(int fd, std::string bytes, int descriptor)
{
	iovec part{bytes.data(), bytes.size()};
	alignas(cmsghdr) char space[CMSG_SPACE(sizeof(int))]{};
	msghdr with_descriptor{};

	with_descriptor.msg_iov = &part;
	with_descriptor.msg_iovlen = 1;
	with_descriptor.msg_control = space;
	with_descriptor.msg_controllen = sizeof(space);
	cmsghdr *control = CMSG_FIRSTHDR(&with_descriptor);
	control->cmsg_level = SOL_SOCKET;
	control->cmsg_type = SCM_RIGHTS;
	control->cmsg_len = CMSG_LEN(sizeof(int));
	std::memcpy(CMSG_DATA(control), &descriptor, sizeof(int));
	if (sendmsg(fd, &with_descriptor, MSG_NOSIGNAL) != static_cast<ssize_t>(bytes.size())) {
		throw std::runtime_error("not sent");
	}
}

class RawClient
{
public:
	// Connects and takes the greeting.
	explicit RawClient(const std::string &path) : fd_(connect_to(path))
	{
		if (fd_ < 0) {
			throw std::runtime_error("no broker at " + path);
		}
		hello_ = receive();
	}
	// Takes a connected socket, whose other end may be anybody.
	explicit RawClient(int fd) : fd_(fd)
	{
	}
	~RawClient()
	{
		leave();
	}
	RawClient(const RawClient &) = delete;
	RawClient &operator=(const RawClient &) = delete;

	const bus_wire::Received &hello() const
	{
		return hello_;
	}
	std::uint32_t id() const
	{
		return hello_.peer;
	}
	int fd() const
	{
		return fd_;
	}

	void leave()
	{
		if (fd_ >= 0) {
			close(fd_);
		}
		fd_ = -1;
	}

	// False when the other end is gone.
	bool send(std::string_view bytes) const
	{
		while (!bytes.empty()) {
			const ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);

			if (sent < 0) {
				return false;
			}
			bytes.remove_prefix(static_cast<std::size_t>(sent));
		}
		return true;
	}

	// The next message; throws when none comes.
	bus_wire::Received receive()
	{
		std::string bytes = receive_bytes(12);
		const auto length = bus_wire::read_big_endian(bytes.substr(8, 4)) & 0xffffff;

		bytes += receive_bytes(length - 4);
		return bus_wire::parse(bytes);
	}

	// Sends a request and passes over everything up to its status.
	int ask(const std::string &request)
	{
		send(request);
		const int seq = bus_wire::parse(request.substr(0, 12)).seq;
		for (;;) {
			const bus_wire::Received answer = receive();
			if (answer.type == bus_wire::STATUS && answer.seq == seq) {
				return static_cast<int>(answer.number(bus_wire::A_STATUS));
			}
		}
	}

	// Puts an object on the bus and returns its id, 0 when the broker does not like it. An
	// empty path is none.
	std::uint32_t add_object(const std::string &path, const std::string &signature = "")
	{
		using namespace bus_wire;
		send(message(ADD_OBJECT, 900, 0,
			     path.empty()
				     ? ""
				     : text(A_OBJPATH, path) + attribute(A_SIGNATURE, signature)));
		std::uint32_t id = 0;
		for (;;) {
			const Received answer = receive();
			if (answer.type == DATA && answer.seq == 900) {
				id = answer.number(A_OBJID);
			}
			if (answer.type == STATUS && answer.seq == 900) {
				return answer.number(A_STATUS) == 0 ? id : 0;
			}
		}
	}

	// Puts a nameless object on the bus that gets such events, and returns its id.
	std::uint32_t listen(const std::string &pattern)
	{
		const std::uint32_t id = add_object("");

		if (ask(bus_wire::register_pattern(901, id, pattern)) != 0) {
			throw std::runtime_error("not registered");
		}
		return id;
	}

	// Whether the other end closes in time; what it says before that is passed over.
	bool is_closed()
	{
		const router_test::Deadline deadline;
		char bytes[65536];

		while (router_test::wait_readable(fd_, deadline)) {
			if (recv(fd_, bytes, sizeof(bytes), 0) <= 0) {
				return true;
			}
		}
		return false;
	}

private:
	std::string receive_bytes(std::size_t length)
	{
		const router_test::Deadline deadline;
		std::string bytes(length, '\0');
		std::size_t got = 0;

		while (got < length) {
			if (!router_test::wait_readable(fd_, deadline)) {
				throw std::runtime_error("no message came");
			}
			const ssize_t more = recv(fd_, bytes.data() + got, length - got, 0);
			if (more <= 0) {
				throw std::runtime_error("the connection was closed");
			}
			got += static_cast<std::size_t>(more);
		}
		return bytes;
	}

	int fd_;
	bus_wire::Received hello_;
};

class Bus : public ToolTest
{
protected:
	Bus()
	{
		start_broker();
	}

	// One that was killed has left its socket behind, to which nobody answers.
	void start_broker()
	{
		std::filesystem::remove(socket());
		broker = std::make_unique<router_test::Process>(
			router_test::Command{.words = {tool("ubusd"), "-s", socket()}});
		// The file is there a moment before anybody listens.
		if (!router_test::wait_until_exists(socket()) ||
		    !router_test::eventually([this] { return accepts_connections(); })) {
			throw std::runtime_error("ubusd does not come up");
		}
	}

	bool accepts_connections() const
	{
		const int fd = connect_to(socket());
		if (fd >= 0) {
			close(fd);
		}
		return fd >= 0;
	}

	std::string socket() const
	{
		return path("bus.sock");
	}

	std::unique_ptr<router_test::Process> broker;
};

// A caller and an owner at work while somebody else misbehaves.
class BusyBus : public Bus
{
protected:
	void call_through()
	{
		caller.send(bus_wire::invoke(1, object, "go"));
		EXPECT_EQ(owner.receive().text(bus_wire::A_METHOD), "go");
		owner.send(bus_wire::message(bus_wire::STATUS, 1, caller.id(),
					     bus_wire::number(bus_wire::A_STATUS, 0) +
						     bus_wire::number(bus_wire::A_OBJID, object)));
		EXPECT_EQ(caller.receive().type, bus_wire::STATUS);
	}

	RawClient owner{socket()};
	RawClient caller{socket()};
	std::uint32_t object = owner.add_object("one");
};

} // namespace bus_test
