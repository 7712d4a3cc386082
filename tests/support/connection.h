// SPDX-License-Identifier: ISC
// One accepted connection of the test server: bounded by the server's end instead of by time.
// Used by http_server.cpp only.
#pragma once

#include <string>
#include <string_view>

namespace router_test
{

class Connection
{
public:
	// Takes the descriptor over. Every operation gives up once `stop` becomes readable.
	Connection(int descriptor, int stop) : descriptor_(descriptor), stop_(stop)
	{
	}
	~Connection();
	Connection(const Connection &) = delete;
	Connection &operator=(const Connection &) = delete;

	// The request up to and including its empty line; empty when the client left before.
	std::string read_head();
	// All of it in one send where the socket takes it. False when the client has gone.
	bool send(std::string_view bytes);
	// Until the client has taken everything out of its receive queue (or has gone), so that
	// what is sent next cannot reach it in the same read. False when the client has gone.
	bool wait_until_read();
	// Until the client closes its side.
	void wait_until_closed();
	// Ends the answer: the client reads the end of the stream.
	void finish();
	// Makes the coming close a reset: the client's next read fails with "connection reset".
	void reset();

private:
	enum class Wait { ready, stopped };
	Wait wait_for(short events, int limit_ms) const;
	bool hung_up() const;

	int descriptor_;
	int stop_;
};

} // namespace router_test
