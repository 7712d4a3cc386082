// SPDX-License-Identifier: ISC
// What the test server does with one request, good or bad. A plain value: build it with the
// functions below, hand it to HttpServer::on.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace router_test
{

struct HttpAnswer {
	enum class Framing {
		content_length, // the usual
		chunked,	// one chunk per piece
		until_close, // neither length nor chunks: the end of the connection ends the body
	};

	int status = 200;
	std::vector<std::string> headers = {}; // further lines "Name: value"
	std::vector<std::string> pieces = {};  // the body; each piece is one send(2)
	Framing framing = Framing::content_length;
	std::optional<std::uint64_t> announced = {}; // a Content-Length other than the true one
	std::optional<std::size_t> reset_after = {}; // RST after so many body bytes
	bool silent = false; // reads the request and never answers; holds the connection open, or
			     // resets it when `reset_after` is set
	bool held = false;   // the head goes out at once, each piece waits for one release()
	bool held_head = false;		      // the head, too, waits for one release()
	std::chrono::milliseconds pause = {}; // between two pieces: a slow line
	bool unfinished = false;	      // after the last piece the connection stays open
	std::string raw = {}; // sent as it stands instead of all of the above, then closed

	// Each returns a changed copy, so that they can be chained.
	HttpAnswer header(std::string line) const;
	HttpAnswer announce(std::uint64_t content_length) const;
	HttpAnswer in_chunks() const;
	HttpAnswer without_length() const;
	HttpAnswer reset_after_bytes(std::size_t count) const;
	HttpAnswer hold() const;
	HttpAnswer hold_all() const;
	HttpAnswer every(std::chrono::milliseconds gap) const;
	HttpAnswer keep_open() const;
	// The body cut at these offsets (ascending, inside the body).
	HttpAnswer cut_at(const std::vector<std::size_t> &offsets) const;
	// The body cut into so many pieces of about one size.
	HttpAnswer in_pieces(std::size_t count) const;

	std::string body() const;
};

HttpAnswer answer(std::string body);		 // 200
HttpAnswer answer(int status, std::string body); // an error page, say
HttpAnswer redirect(const std::string &location, int status = 302);
HttpAnswer silence();
HttpAnswer raw_answer(std::string bytes);

// The same, of a status line and fields without "HTTP/1.1 " and the line that ends them, and a
// body.
HttpAnswer raw(const std::string &head, const std::string &body = {});
// Accepts and resets the connection as soon as the request has been read.
HttpAnswer reset_at_once();

} // namespace router_test
