// SPDX-License-Identifier: ISC
#include "support/wait.h"

#include <cerrno>
#include <cstdlib>
#include <poll.h>
#include <stdexcept>
#include <sys/inotify.h>
#include <unistd.h>

namespace router_test
{

using std::chrono::steady_clock;

milliseconds wait_limit()
{
	static const milliseconds limit = [] {
		const char *setting = std::getenv("FWUPDATE_TEST_WAIT_MS");
		long value = setting != nullptr ? std::strtol(setting, nullptr, 10) : 0;
		return milliseconds(value > 0 ? value : 10000);
	}();
	return limit;
}

Deadline::Deadline(milliseconds from_now) : at_(steady_clock::now() + from_now)
{
}

int Deadline::remaining() const
{
	auto left = std::chrono::ceil<milliseconds>(at_ - steady_clock::now()).count();
	return left > 0 ? static_cast<int>(left) : 0;
}

bool Deadline::passed() const
{
	return remaining() == 0;
}

bool wait_readable(int descriptor, const Deadline &deadline)
{
	for (;;) {
		pollfd watched = {.fd = descriptor, .events = POLLIN, .revents = 0};
		int ready = poll(&watched, 1, deadline.remaining());
		if (ready > 0) {
			return true;
		}
		if (ready == 0) {
			return false;
		}
		if (errno != EINTR) {
			throw std::runtime_error("poll failed");
		}
	}
}

namespace
{

class FolderWatch
{
public:
	explicit FolderWatch(const std::string &path)
	    : descriptor_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
	{
		auto slash = path.rfind('/');
		std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
		constexpr std::uint32_t events = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE |
						 IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM |
						 IN_ATTRIB;
		if (inotify_add_watch(descriptor_, folder.c_str(), events) < 0) {
			close(descriptor_);
			throw std::runtime_error("cannot watch " + folder);
		}
	}
	~FolderWatch()
	{
		close(descriptor_);
	}
	FolderWatch(const FolderWatch &) = delete;
	FolderWatch &operator=(const FolderWatch &) = delete;

	bool wait(const Deadline &deadline) const
	{
		if (!wait_readable(descriptor_, deadline)) {
			return false;
		}
		char events[4096];
		while (read(descriptor_, events, sizeof(events)) > 0) {
		}
		return true;
	}

private:
	int descriptor_;
};

} // namespace

bool wait_for_change(const std::string &path, const std::function<bool()> &reached,
		     milliseconds limit)
{
	Deadline deadline(limit);
	FolderWatch watch(path);
	while (!reached()) {
		if (!watch.wait(deadline)) {
			return reached();
		}
	}
	return true;
}

bool wait_until_exists(const std::string &path, milliseconds limit)
{
	return wait_for_change(
		path, [&] { return access(path.c_str(), F_OK) == 0; }, limit);
}

bool wait_until_gone(const std::string &path, milliseconds limit)
{
	return wait_for_change(
		path, [&] { return access(path.c_str(), F_OK) != 0; }, limit);
}

bool eventually(const std::function<bool()> &reached, milliseconds limit)
{
	constexpr int pace_ms = 2;
	Deadline deadline(limit);
	while (!reached()) {
		if (deadline.passed()) {
			return false;
		}
		poll(nullptr, 0, pace_ms);
	}
	return true;
}

} // namespace router_test
