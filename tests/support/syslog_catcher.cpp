// SPDX-License-Identifier: ISC
#include "support/syslog_catcher.h"

#include <array>
#include <charconv>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include "support/router_files.h"

namespace router_test
{
namespace
{

constexpr const char *log_path = "/dev/log";

int to_number(std::string_view text)
{
	int number = 0;
	std::from_chars(text.data(), text.data() + text.size(), number);
	return number;
}

// "<14>Jan  2 03:04:05 fwupdate[123]: text". A line feed at the end is no part of the text: musl
// puts one there when there is none.
LogLine parse_line(std::string raw)
{
	if (raw.ends_with('\n')) {
		raw.pop_back();
	}
	constexpr std::size_t stamp_size = sizeof("Jan  2 03:04:05 ") - 1;
	LogLine line;
	line.text = raw;
	std::string_view rest = raw;
	std::size_t bracket = rest.find('>');
	if (!rest.starts_with('<') || bracket == std::string_view::npos ||
	    rest.size() < bracket + 1 + stamp_size) {
		return line;
	}
	line.priority = to_number(rest.substr(1, bracket - 1));
	rest.remove_prefix(bracket + 1 + stamp_size);
	std::size_t colon = rest.find(": ");
	if (colon == std::string_view::npos) {
		line.text = rest;
		return line;
	}
	std::string_view tag = rest.substr(0, colon);
	line.text = rest.substr(colon + 2);
	std::size_t open = tag.find('[');
	line.ident = tag.substr(0, open);
	if (open != std::string_view::npos) {
		line.pid = to_number(tag.substr(open + 1));
	}
	return line;
}

int bind_log()
{
	int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	sockaddr_un address = {};
	address.sun_family = AF_UNIX;
	std::strcpy(address.sun_path, log_path);
	unlink(log_path);
	if (bind(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
		close(descriptor);
		throw std::runtime_error("cannot bind /dev/log");
	}
	chmod(log_path, 0666);
	return descriptor;
}

} // namespace

struct SyslogCatcher::State {
	int descriptor = -1;
	int stop = -1;
	std::mutex mutex;
	std::condition_variable changed;
	std::vector<LogLine> lines;
	std::thread reader;

	void read_until_stopped();
	void take_all();
};

// Called with the mutex held, by whoever looks: what was sent before is then never missed.
void SyslogCatcher::State::take_all()
{
	std::array<char, 65536> datagram;
	for (;;) {
		ssize_t size = recv(descriptor, datagram.data(), datagram.size(), 0);
		if (size < 0) {
			return;
		}
		lines.push_back(
			parse_line(std::string(datagram.data(), static_cast<std::size_t>(size))));
		changed.notify_all();
	}
}

void SyslogCatcher::State::read_until_stopped()
{
	for (;;) {
		std::array<pollfd, 2> watched = {{{descriptor, POLLIN, 0}, {stop, POLLIN, 0}}};
		poll(watched.data(), watched.size(), -1);
		if (watched[1].revents != 0) {
			return;
		}
		std::lock_guard lock(mutex);
		take_all();
	}
}

SyslogCatcher::SyslogCatcher() : state_(std::make_unique<State>())
{
	require_router();
	state_->descriptor = bind_log();
	state_->stop = eventfd(0, EFD_CLOEXEC);
	state_->reader = std::thread([this] { state_->read_until_stopped(); });
}

SyslogCatcher::~SyslogCatcher()
{
	eventfd_write(state_->stop, 1);
	state_->reader.join();
	unlink(log_path);
	close(state_->descriptor);
	close(state_->stop);
}

std::vector<LogLine> SyslogCatcher::lines() const
{
	std::lock_guard lock(state_->mutex);
	state_->take_all();
	return state_->lines;
}

std::vector<std::string> SyslogCatcher::texts() const
{
	std::vector<std::string> texts;
	for (const LogLine &line : lines()) {
		texts.push_back(line.text);
	}
	return texts;
}

std::size_t SyslogCatcher::count(std::string_view text) const
{
	std::size_t found = 0;
	for (const LogLine &line : lines()) {
		found += line.text.find(text) != std::string::npos ? 1 : 0;
	}
	return found;
}

std::optional<LogLine> SyslogCatcher::wait_for(std::string_view text, milliseconds limit) const
{
	std::optional<LogLine> found;
	auto has_come = [&] {
		for (const LogLine &line : state_->lines) {
			if (!found && line.text.find(text) != std::string::npos) {
				found = line;
			}
		}
		return found.has_value();
	};
	std::unique_lock lock(state_->mutex);
	state_->changed.wait_for(lock, limit, has_come);
	return found;
}

void SyslogCatcher::clear()
{
	std::lock_guard lock(state_->mutex);
	state_->take_all();
	state_->lines.clear();
}

} // namespace router_test
