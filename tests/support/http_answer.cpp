// SPDX-License-Identifier: ISC
#include "support/http_answer.h"

#include <algorithm>

namespace router_test
{

HttpAnswer HttpAnswer::header(std::string line) const
{
	HttpAnswer copy = *this;
	copy.headers.push_back(std::move(line));
	return copy;
}

HttpAnswer HttpAnswer::announce(std::uint64_t content_length) const
{
	HttpAnswer copy = *this;
	copy.announced = content_length;
	return copy;
}

HttpAnswer HttpAnswer::in_chunks() const
{
	HttpAnswer copy = *this;
	copy.framing = Framing::chunked;
	return copy;
}

HttpAnswer HttpAnswer::without_length() const
{
	HttpAnswer copy = *this;
	copy.framing = Framing::until_close;
	return copy;
}

HttpAnswer HttpAnswer::reset_after_bytes(std::size_t count) const
{
	HttpAnswer copy = *this;
	copy.reset_after = count;
	return copy;
}

HttpAnswer HttpAnswer::hold() const
{
	HttpAnswer copy = *this;
	copy.held = true;
	return copy;
}

HttpAnswer HttpAnswer::hold_all() const
{
	HttpAnswer changed = hold();
	changed.held_head = true;
	return changed;
}

HttpAnswer HttpAnswer::every(std::chrono::milliseconds gap) const
{
	HttpAnswer changed = *this;
	changed.pause = gap;
	return changed;
}

HttpAnswer HttpAnswer::keep_open() const
{
	HttpAnswer copy = *this;
	copy.unfinished = true;
	return copy;
}

HttpAnswer HttpAnswer::cut_at(const std::vector<std::size_t> &offsets) const
{
	HttpAnswer copy = *this;
	std::string whole = body();
	copy.pieces.clear();
	std::size_t start = 0;
	for (std::size_t offset : offsets) {
		copy.pieces.push_back(whole.substr(start, offset - start));
		start = offset;
	}
	copy.pieces.push_back(whole.substr(start));
	return copy;
}

HttpAnswer HttpAnswer::in_pieces(std::size_t count) const
{
	std::size_t size = body().size();
	std::vector<std::size_t> offsets;
	for (std::size_t i = 1; i < count; i++) {
		offsets.push_back(size * i / count);
	}
	return cut_at(offsets);
}

std::string HttpAnswer::body() const
{
	std::string whole;
	for (const std::string &piece : pieces) {
		whole += piece;
	}
	return whole;
}

HttpAnswer answer(std::string body)
{
	return answer(200, std::move(body));
}

HttpAnswer answer(int status, std::string body)
{
	HttpAnswer result;
	result.status = status;
	if (!body.empty()) {
		result.pieces.push_back(std::move(body));
	}
	return result;
}

HttpAnswer redirect(const std::string &location, int status)
{
	return answer(status, "").header("Location: " + location);
}

HttpAnswer silence()
{
	HttpAnswer result;
	result.silent = true;
	return result;
}

HttpAnswer raw(const std::string &head, const std::string &body)
{
	return raw_answer("HTTP/1.1 " + head + "\r\n\r\n" + body);
}

HttpAnswer raw_answer(std::string bytes)
{
	HttpAnswer result;
	result.raw = std::move(bytes);
	return result;
}

HttpAnswer reset_at_once()
{
	return silence().reset_after_bytes(0);
}

} // namespace router_test
