// SPDX-License-Identifier: ISC
// An HTTP/1.1 server inside the test program that misbehaves on purpose. It answers what the test
// laid down per path, records every request, and sends a body piece by piece: the next piece goes
// out when the client has read the one before, or, in a held answer, when the test releases it.
// One request per connection. The server's threads end with the object.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/http_answer.h"
#include "support/http_request.h"
#include "support/wait.h"

namespace router_test
{

class HttpServer
{
public:
	// Port 0 picks a free one. Throws std::runtime_error when the address cannot be bound.
	explicit HttpServer(const std::string &address = "127.0.0.1", std::uint16_t port = 0);
	~HttpServer();
	HttpServer(const HttpServer &) = delete;

	std::uint16_t port() const;
	std::string url(const std::string &target) const; // "http://127.0.0.1:40123/target"

	// Lays down what successive requests of the path get; the last answer serves all later
	// ones. Replaces what was laid down before. Paths without answers get 404.
	void on(const std::string &path, HttpAnswer every_time);
	void on(const std::string &path, std::vector<HttpAnswer> one_after_another);

	// Lets the next `count` held pieces go, also those that are only waited for later.
	void release(unsigned count = 1);
	void release_all();

	std::vector<HttpRequest> requests() const;
	std::vector<HttpRequest> requests(const std::string &path) const;
	// True when `count` requests (of that path) have been received in time.
	bool wait_for_requests(std::size_t count, milliseconds limit = wait_limit()) const;
	bool wait_for_requests(const std::string &path, std::size_t count,
			       milliseconds limit = wait_limit()) const;
	// True when `count` body pieces of that path have been sent and read by the clients, or
	// when that many connections were closed by either side.
	bool wait_for_pieces(const std::string &path, std::size_t count,
			     milliseconds limit = wait_limit()) const;
	bool wait_for_closed(std::size_t count, milliseconds limit = wait_limit()) const;

private:
	struct State;
	std::unique_ptr<State> state_;
};

// A port of 127.0.0.1 on which nobody listens (it was free a moment ago).
std::uint16_t unused_port();

} // namespace router_test
