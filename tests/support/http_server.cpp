// SPDX-License-Identifier: ISC
#include "support/http_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "support/connection.h"

namespace router_test
{
namespace
{

const char *reason_of(int status)
{
	switch (status) {
	case 200:
		return "OK";
	case 301:
		return "Moved Permanently";
	case 302:
		return "Found";
	case 404:
		return "Not Found";
	case 500:
		return "Internal Server Error";
	default:
		return "Status";
	}
}

std::string head_of(const HttpAnswer &answer)
{
	std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " " +
			   reason_of(answer.status) + "\r\n";
	for (const std::string &line : answer.headers) {
		head += line + "\r\n";
	}
	std::uint64_t length = answer.announced.value_or(answer.body().size());
	if (answer.framing == HttpAnswer::Framing::content_length) {
		head += "Content-Length: " + std::to_string(length) + "\r\n";
	} else if (answer.framing == HttpAnswer::Framing::chunked) {
		head += "Transfer-Encoding: chunked\r\n";
	}
	return head + "Connection: close\r\n\r\n";
}

// The pieces as they go over the wire.
std::vector<std::string> wire_pieces(const HttpAnswer &answer)
{
	if (answer.framing != HttpAnswer::Framing::chunked) {
		return answer.pieces;
	}
	std::vector<std::string> pieces;
	for (const std::string &piece : answer.pieces) {
		std::array<char, 32> size;
		std::snprintf(size.data(), size.size(), "%zx\r\n", piece.size());
		pieces.push_back(size.data() + piece + "\r\n");
	}
	if (pieces.empty()) {
		pieces.emplace_back();
	}
	if (!answer.unfinished) {
		pieces.back() += "0\r\n\r\n";
	}
	return pieces;
}

} // namespace

struct HttpServer::State {
	struct Script {
		std::vector<HttpAnswer> answers;
		std::size_t next = 0;
	};

	std::string address;
	std::uint16_t port = 0;
	int listener = -1;
	int stop = -1;

	std::mutex mutex;
	std::condition_variable changed;
	bool stopping = false;
	std::map<std::string, Script> scripts;
	std::vector<HttpRequest> requests;
	std::size_t releases = 0;
	std::map<std::string, std::size_t> pieces; // by path
	std::size_t closed = 0;

	std::vector<std::thread> connections; // the accepting thread's alone
	std::thread accepting;

	void accept_all();
	void serve(int descriptor);
	HttpAnswer answer_to(const HttpRequest &request);
	void give(Connection &connection, const std::string &path, const HttpAnswer &answer);
	bool wait_for_release();
	bool wait_for_next(const HttpAnswer &answer);
	bool send_piece(Connection &connection, const std::string &path, std::string_view bytes);
	template<typename Condition> bool wait_until(Condition condition, milliseconds limit)
	{
		std::unique_lock lock(mutex);
		return changed.wait_for(lock, limit, condition);
	}
};

void HttpServer::State::accept_all()
{
	for (;;) {
		std::array<pollfd, 2> watched = {{{listener, POLLIN, 0}, {stop, POLLIN, 0}}};
		poll(watched.data(), watched.size(), -1);
		if (watched[1].revents != 0) {
			break;
		}
		int descriptor = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
		if (descriptor >= 0) {
			connections.emplace_back([this, descriptor] { serve(descriptor); });
		}
	}
	for (std::thread &connection : connections) {
		connection.join();
	}
}

void HttpServer::State::serve(int descriptor)
{
	{
		Connection connection(descriptor, stop);
		std::string head = connection.read_head();
		if (!head.empty()) {
			const HttpRequest request = parse_request(head);
			give(connection, request.path(), answer_to(request));
		}
	}
	std::lock_guard lock(mutex);
	closed++;
	changed.notify_all();
}

HttpAnswer HttpServer::State::answer_to(const HttpRequest &request)
{
	std::lock_guard lock(mutex);
	requests.push_back(request);
	changed.notify_all();
	auto script = scripts.find(request.path());
	if (script == scripts.end() || script->second.answers.empty()) {
		return answer(404, "nothing here\n");
	}
	Script &found = script->second;
	std::size_t index = std::min(found.next, found.answers.size() - 1);
	found.next++;
	return found.answers[index];
}

bool HttpServer::State::wait_for_release()
{
	std::unique_lock lock(mutex);
	changed.wait(lock, [this] { return releases > 0 || stopping; });
	if (stopping) {
		return false;
	}
	releases--;
	return true;
}

// False when the next piece is not to be sent any more.
bool HttpServer::State::wait_for_next(const HttpAnswer &answer)
{
	if (answer.pause.count() > 0 && wait_until([this] { return stopping; }, answer.pause)) {
		return false;
	}
	return !answer.held || wait_for_release();
}

bool HttpServer::State::send_piece(Connection &connection, const std::string &path,
				   std::string_view bytes)
{
	if (!connection.send(bytes) || !connection.wait_until_read()) {
		return false;
	}
	std::lock_guard lock(mutex);
	pieces[path]++;
	changed.notify_all();
	return true;
}

void HttpServer::State::give(Connection &connection, const std::string &path,
			     const HttpAnswer &answer)
{
	if (answer.silent) {
		if (answer.reset_after) {
			connection.reset();
			return;
		}
		connection.wait_until_closed();
		return;
	}
	if (answer.held_head && !wait_for_release()) {
		return;
	}
	bool is_raw = !answer.raw.empty();
	std::string unsent = is_raw ? answer.raw : head_of(answer);
	std::size_t allowed = answer.reset_after.value_or(SIZE_MAX);
	bool open = true;
	if (answer.held || is_raw || answer.pieces.empty() || allowed == 0) {
		if (!answer.held && !is_raw && answer.framing == HttpAnswer::Framing::chunked) {
			unsent += wire_pieces(answer).front();
		}
		open = connection.send(unsent) && connection.wait_until_read();
		unsent.clear();
	}
	for (const std::string &piece :
	     is_raw || answer.pieces.empty() ? std::vector<std::string>() : wire_pieces(answer)) {
		if (!open || allowed == 0 || !wait_for_next(answer)) {
			break;
		}
		std::string_view part = std::string_view(piece).substr(0, allowed);
		allowed -= answer.reset_after ? part.size() : 0;
		// The head travels with the first piece: a client meets both in one read.
		unsent += part;
		open = send_piece(connection, path, unsent);
		unsent.clear();
	}
	if (answer.reset_after) {
		connection.reset();
		return;
	}
	if (open && !answer.unfinished) {
		connection.finish();
	}
	connection.wait_until_closed();
}

HttpServer::HttpServer(const std::string &address, std::uint16_t port)
    : state_(std::make_unique<State>())
{
	sockaddr_in place = {};
	place.sin_family = AF_INET;
	place.sin_port = htons(port);
	inet_pton(AF_INET, address.c_str(), &place.sin_addr);
	socklen_t size = sizeof(place);
	auto *generic = reinterpret_cast<sockaddr *>(&place);
	int enabled = 1;
	state_->listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
	setsockopt(state_->listener, SOL_SOCKET, SO_REUSEADDR, &enabled, sizeof(enabled));
	if (bind(state_->listener, generic, size) != 0 || listen(state_->listener, 64) != 0) {
		close(state_->listener);
		throw std::runtime_error("cannot listen on " + address + ":" +
					 std::to_string(port));
	}
	getsockname(state_->listener, generic, &size);
	state_->address = address;
	state_->port = ntohs(place.sin_port);
	state_->stop = eventfd(0, EFD_CLOEXEC);
	state_->accepting = std::thread([this] { state_->accept_all(); });
}

HttpServer::~HttpServer()
{
	{
		std::lock_guard lock(state_->mutex);
		state_->stopping = true;
		state_->changed.notify_all();
	}
	eventfd_write(state_->stop, 1);
	state_->accepting.join();
	close(state_->listener);
	close(state_->stop);
}

std::uint16_t HttpServer::port() const
{
	return state_->port;
}

std::string HttpServer::url(const std::string &target) const
{
	return "http://" + state_->address + ":" + std::to_string(state_->port) + target;
}

void HttpServer::on(const std::string &path, HttpAnswer every_time)
{
	on(path, std::vector<HttpAnswer>{std::move(every_time)});
}

void HttpServer::on(const std::string &path, std::vector<HttpAnswer> one_after_another)
{
	std::lock_guard lock(state_->mutex);
	state_->scripts[path] = {std::move(one_after_another), 0};
}

void HttpServer::release(unsigned count)
{
	std::lock_guard lock(state_->mutex);
	state_->releases += count;
	state_->changed.notify_all();
}

void HttpServer::release_all()
{
	constexpr unsigned more_than_any_test_sends = 1000000;
	release(more_than_any_test_sends);
}

std::vector<HttpRequest> HttpServer::requests() const
{
	std::lock_guard lock(state_->mutex);
	return state_->requests;
}

std::vector<HttpRequest> HttpServer::requests(const std::string &path) const
{
	std::vector<HttpRequest> all = requests();
	std::erase_if(all, [&](const HttpRequest &request) { return request.path() != path; });
	return all;
}

bool HttpServer::wait_for_requests(std::size_t count, milliseconds limit) const
{
	return state_->wait_until([&] { return state_->requests.size() >= count; }, limit);
}

bool HttpServer::wait_for_requests(const std::string &path, std::size_t count,
				   milliseconds limit) const
{
	auto is_path = [&](const HttpRequest &request) {
		return request.path() == path;
	};
	auto enough = [&] {
		auto &all = state_->requests;
		return std::count_if(all.begin(), all.end(), is_path) >=
		       static_cast<std::ptrdiff_t>(count);
	};
	return state_->wait_until(enough, limit);
}

bool HttpServer::wait_for_pieces(const std::string &path, std::size_t count,
				 milliseconds limit) const
{
	return state_->wait_until([&] { return state_->pieces[path] >= count; }, limit);
}

bool HttpServer::wait_for_closed(std::size_t count, milliseconds limit) const
{
	return state_->wait_until([&] { return state_->closed >= count; }, limit);
}

std::uint16_t unused_port()
{
	return HttpServer().port();
}

} // namespace router_test
