// SPDX-License-Identifier: ISC
#include "ubusd_client.h"

#include <array>
#include <cerrno>
#include <utility>

#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ubusd_broker.h"

namespace ubusd
{

Client::Client(Broker &broker, int socket, uint32_t id) : broker_(broker), id_(id)
{
	watch_.fd.fd = socket;
	watch_.fd.cb = on_ready;
	watch_.client = this;
	identify();
	watch_for(ULOOP_READ);
}

Client::~Client()
{
	uloop_fd_delete(&watch_.fd);
	close(watch_.fd.fd);
}

// A user without a name is called by its number.
void Client::identify()
{
	ucred peer{};
	socklen_t len = sizeof(peer);

	if (getsockopt(watch_.fd.fd, SOL_SOCKET, SO_PEERCRED, &peer, &len) != 0)
		return;
	const passwd *user = getpwuid(peer.uid);
	user_ = user ? user->pw_name : std::to_string(peer.uid);
	const ::group *group = getgrgid(peer.gid);
	group_ = group ? group->gr_name : std::to_string(peer.gid);
}

void Client::watch_for(unsigned int events)
{
	waits_for_room_ = (events & ULOOP_WRITE) != 0;
	if (uloop_fd_add(&watch_.fd, events) != 0)
		lose();
}

void Client::lose()
{
	if (lost_)
		return;
	lost_ = true;
	broker_.client_lost(*this);
}

void Client::on_ready(uloop_fd *fd, unsigned int events)
{
	Client &client = *reinterpret_cast<Watch *>(fd)->client;
	Broker &broker = client.broker_;

	if (events & ULOOP_WRITE)
		client.flush();
	client.read_messages();
	broker.drop_lost_clients();
}

// One portion per pass keeps a talkative client from holding up the others. A client
// that has hung up is not announced again: its last words are read to their end.
void Client::read_messages()
{
	while (!lost_ && read_some()) {
		while (auto message = reader_.next()) {
			broker_.handle(*this, *message);
			if (lost_)
				return;
		}
		if (reader_.malformed())
			lose();
		if (watch_.fd.registered)
			return;
	}
}

// False when there is nothing to read. Descriptors that came along are dropped by the
// kernel, for lack of room.
bool Client::read_some()
{
	static std::array<std::byte, 65536> portion;
	const ssize_t got = recv(watch_.fd.fd, portion.data(), portion.size(), 0);

	if (got > 0) {
		reader_.append({portion.data(), static_cast<size_t>(got)});
		return true;
	}
	if (got == 0 || (errno != EAGAIN && errno != EINTR))
		lose();
	return false;
}

void Client::send(std::string wire)
{
	if (lost_ || wire.empty())
		return;
	queued_ += wire.size();
	queue_.push_back(std::move(wire));
	if (queue_.size() == 1)
		flush();
	if (queued_ - sent_ > max_queued)
		lose();
}

void Client::flush()
{
	while (!queue_.empty()) {
		const std::string &wire = queue_.front();
		const ssize_t sent = ::send(watch_.fd.fd, wire.data() + sent_, wire.size() - sent_,
					    MSG_NOSIGNAL);

		if (sent < 0 && errno == EINTR)
			continue;
		if (sent < 0 && errno == EAGAIN)
			return watch_for(ULOOP_READ | ULOOP_WRITE);
		if (sent < 0)
			return lose();
		sent_ += static_cast<size_t>(sent);
		if (sent_ < wire.size())
			continue;
		queued_ -= wire.size();
		sent_ = 0;
		queue_.pop_front();
	}
	if (waits_for_room_)
		watch_for(ULOOP_READ);
}

} // namespace ubusd
