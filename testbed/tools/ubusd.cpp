// SPDX-License-Identifier: ISC
// The message bus's broker: listens on a unix socket and hands what connects to Broker.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "ubusd_broker.h"

namespace
{

constexpr const char *default_socket = "/var/run/ubus/ubus.sock";

// The listening socket, its file, and the clients that come in through it.
class Listener
{
public:
	explicit Listener(ubusd::Broker &broker) : broker_(broker)
	{
		watch_.listener = this;
		watch_.fd.fd = -1;
		watch_.fd.cb = on_ready;
	}
	~Listener();
	Listener(const Listener &) = delete;
	Listener &operator=(const Listener &) = delete;

	// False with errno. Makes the folder, and takes the place of a socket that an
	// earlier broker has left. Once the file is there, it answers.
	[[nodiscard]] bool open(const std::string &path);

private:
	struct Watch {
		uloop_fd fd; // first: the loop's callback gets this address
		Listener *listener;
	};

	static void on_ready(uloop_fd *fd, unsigned int events);
	[[nodiscard]] bool bind_to(const std::string &path);

	ubusd::Broker &broker_;
	Watch watch_{};
	std::string path_;
	struct stat file_ {
	};
};

bool Listener::open(const std::string &path)
{
	const std::string unfinished = path + "~";
	std::error_code ignored; // bind says it better

	std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
	watch_.fd.fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	unlink(unfinished.c_str());
	if (watch_.fd.fd < 0 || !bind_to(unfinished))
		return false;
	path_ = path;
	return listen(watch_.fd.fd, SOMAXCONN) == 0 &&
	       rename(unfinished.c_str(), path.c_str()) == 0 && lstat(path.c_str(), &file_) == 0 &&
	       uloop_fd_add(&watch_.fd, ULOOP_READ) == 0;
}

bool Listener::bind_to(const std::string &path)
{
	sockaddr_un address{};

	if (path.size() >= sizeof(address.sun_path)) {
		errno = ENAMETOOLONG;
		return false;
	}
	address.sun_family = AF_UNIX;
	std::memcpy(address.sun_path, path.data(), path.size());
	return bind(watch_.fd.fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) ==
	       0;
}

Listener::~Listener()
{
	struct stat now {
	};

	uloop_fd_delete(&watch_.fd);
	if (watch_.fd.fd >= 0)
		close(watch_.fd.fd);
	// A successor may have put its own in this place.
	if (file_.st_ino != 0 && lstat(path_.c_str(), &now) == 0 && now.st_ino == file_.st_ino)
		unlink(path_.c_str());
}

void Listener::on_ready(uloop_fd *fd, unsigned int)
{
	Listener &listener = *reinterpret_cast<Watch *>(fd)->listener;
	const int client = accept4(fd->fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);

	if (client >= 0)
		listener.broker_.welcome(client);
}

int serve(const std::string &path)
{
	ubusd::Broker broker;
	Listener listener(broker);

	if (!listener.open(path)) {
		std::fprintf(stderr, "ubusd: cannot listen on %s: %s\n", path.c_str(),
			     std::strerror(errno));
		return 1;
	}
	uloop_run();
	return 0;
}

} // namespace

int main(int argc, char **argv)
{
	std::string path = default_socket;
	int option = 0;

	while ((option = getopt(argc, argv, "+s:")) != -1) {
		if (option != 's') {
			std::fprintf(stderr, "Usage: ubusd [-s SOCKET]\n");
			return 1;
		}
		path = optarg;
	}
	std::signal(SIGPIPE, SIG_IGN);
	uloop_init();
	const int status = serve(path);
	uloop_done();
	return status;
}
