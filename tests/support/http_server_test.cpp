// SPDX-License-Identifier: ISC
// The test server's misbehaviour as libcurl's command line program meets it, and as a plain socket
// does where single reads matter.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/http_server.h"
#include "support/process.h"

using namespace router_test;

namespace
{

// A client that reads when it is told to.
class Client
{
public:
	Client(const HttpServer &server, const std::string &path)
	    : descriptor_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
	{
		sockaddr_in address = {};
		address.sin_family = AF_INET;
		address.sin_port = htons(server.port());
		address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
		EXPECT_EQ(connect(descriptor_, reinterpret_cast<sockaddr *>(&address),
				  sizeof(address)),
			  0);
		std::string head = "GET " + path + " HTTP/1.1\r\nHost: x\r\nX-Word: a b\r\n\r\n";
		EXPECT_EQ(send(descriptor_, head.data(), head.size(), 0),
			  static_cast<ssize_t>(head.size()));
	}
	~Client()
	{
		close(descriptor_);
	}
	Client(const Client &) = delete;

	bool readable(milliseconds limit = wait_limit()) const
	{
		return wait_readable(descriptor_, Deadline(limit));
	}
	// What one read delivers; "" at the end, "reset" after a reset, "nothing" when time is
	// over.
	std::string read_once() const
	{
		if (!readable()) {
			return "nothing";
		}
		std::string chunk(65536, '\0');
		ssize_t count = recv(descriptor_, chunk.data(), chunk.size(), 0);
		if (count < 0) {
			return errno == ECONNRESET ? "reset" : "error";
		}
		chunk.resize(static_cast<std::size_t>(count));
		return chunk;
	}
	std::string read_head() const
	{
		std::string head = read_once();
		EXPECT_TRUE(head.ends_with("\r\n\r\n")) << head;
		return head;
	}

private:
	int descriptor_;
};

std::string body_of(const std::string &message)
{
	return message.substr(message.find("\r\n\r\n") + 4);
}

} // namespace

TEST(HttpServer, DeliversHeadAndSinglePieceInOneRead)
{
	HttpServer server;
	server.on("/a", answer("one piece"));
	Client client(server, "/a?x=1&y=2");
	std::string message = client.read_once();
	EXPECT_TRUE(message.starts_with("HTTP/1.1 200 OK\r\n")) << message;
	EXPECT_NE(message.find("Content-Length: 9\r\n"), std::string::npos);
	EXPECT_EQ(body_of(message), "one piece");
	EXPECT_EQ(client.read_once(), "");
}

TEST(HttpServer, RecordsTheRequestExactly)
{
	HttpServer server;
	Client client(server, "/a?x=1&y=&z=a:b");
	EXPECT_TRUE(client.read_once().starts_with("HTTP/1.1 404 "));
	ASSERT_TRUE(server.wait_for_requests(1));
	HttpRequest request = server.requests()[0];
	EXPECT_EQ(request.method, "GET");
	EXPECT_EQ(request.target, "/a?x=1&y=&z=a:b");
	EXPECT_EQ(request.path(), "/a");
	EXPECT_EQ(request.query(), "x=1&y=&z=a:b");
	EXPECT_EQ(request.parameter("x"), "1");
	EXPECT_EQ(request.parameter("y"), "");
	EXPECT_EQ(request.parameter("z"), "a:b");
	EXPECT_EQ(request.header("x-word"), "a b");
	EXPECT_EQ(request.header("X-Wor"), "");
	EXPECT_EQ(server.requests("/b").size(), 0u);
	EXPECT_FALSE(server.wait_for_requests("/b", 1, milliseconds(1)));
}

TEST(HttpServer, PiecesArriveInReadsOfTheirOwn)
{
	HttpServer server;
	server.on("/a", answer("abcdef").cut_at({2, 3}));
	Client client(server, "/a");
	EXPECT_EQ(body_of(client.read_once()), "ab");
	EXPECT_EQ(client.read_once(), "c");
	EXPECT_EQ(client.read_once(), "def");
	EXPECT_EQ(client.read_once(), "");
}

TEST(HttpServer, NextPieceWaitsUntilTheClientHasReadTheOneBefore)
{
	HttpServer server;
	server.on("/a", answer("abcd").in_pieces(2));
	Client client(server, "/a");
	ASSERT_TRUE(client.readable());
	EXPECT_FALSE(server.wait_for_pieces("/a", 1, milliseconds(20)));
	EXPECT_EQ(body_of(client.read_once()), "ab");
	EXPECT_TRUE(server.wait_for_pieces("/a", 1));
	EXPECT_EQ(client.read_once(), "cd");
}

TEST(HttpServer, HeldPieceGoesOutOnRelease)
{
	HttpServer server;
	server.on("/a", answer("abcd").in_pieces(2).hold());
	Client client(server, "/a");
	client.read_head();
	EXPECT_FALSE(client.readable(milliseconds(20)));
	server.release();
	EXPECT_EQ(client.read_once(), "ab");
	EXPECT_FALSE(client.readable(milliseconds(20)));
	server.release();
	EXPECT_EQ(client.read_once(), "cd");
	EXPECT_EQ(client.read_once(), "");
}

TEST(HttpServer, GivesTheLengthThatItWasTold)
{
	HttpServer server;
	server.on("/long", answer("abc").announce(10));
	server.on("/none", answer("abc").without_length());
	EXPECT_NE(Client(server, "/long").read_once().find("Content-Length: 10\r\n"),
		  std::string::npos);
	EXPECT_EQ(Client(server, "/none").read_once().find("Content-Length"), std::string::npos);
}

TEST(HttpServer, SendsChunks)
{
	HttpServer server;
	server.on("/a", answer("abcdef").in_pieces(2).in_chunks());
	server.on("/empty", answer("").in_chunks());
	Client client(server, "/a");
	EXPECT_EQ(body_of(client.read_once()), "3\r\nabc\r\n");
	EXPECT_EQ(client.read_once(), "3\r\ndef\r\n0\r\n\r\n");
	EXPECT_EQ(body_of(Client(server, "/empty").read_once()), "0\r\n\r\n");
}

TEST(HttpServer, ResetsAfterSoManyBytes)
{
	HttpServer server;
	server.on("/a", answer("abcdef").reset_after_bytes(4));
	Client client(server, "/a");
	EXPECT_EQ(body_of(client.read_once()), "abcd");
	EXPECT_EQ(client.read_once(), "reset");
	server.on("/b", reset_at_once());
	EXPECT_EQ(Client(server, "/b").read_once(), "reset");
	server.on("/c", answer("abc").reset_after_bytes(0));
	Client head_only(server, "/c");
	head_only.read_head();
	EXPECT_EQ(head_only.read_once(), "reset");
}

TEST(HttpServer, KeepsSilentUntilTheClientLeaves)
{
	HttpServer server;
	server.on("/a", silence());
	{
		Client client(server, "/a");
		ASSERT_TRUE(server.wait_for_requests(1));
		EXPECT_FALSE(client.readable(milliseconds(20)));
		EXPECT_FALSE(server.wait_for_closed(1, milliseconds(1)));
	}
	EXPECT_TRUE(server.wait_for_closed(1));
}

TEST(HttpServer, LeavesAnUnfinishedAnswerOpen)
{
	HttpServer server;
	server.on("/a", answer("abc").announce(5).keep_open());
	Client client(server, "/a");
	EXPECT_EQ(body_of(client.read_once()), "abc");
	EXPECT_FALSE(client.readable(milliseconds(20)));
}

TEST(HttpServer, AnswersOneAfterAnotherThenTheLastForEver)
{
	HttpServer server;
	server.on("/a", {answer(500, "first"), answer("second")});
	EXPECT_TRUE(Client(server, "/a").read_once().starts_with("HTTP/1.1 500 "));
	EXPECT_EQ(body_of(Client(server, "/a").read_once()), "second");
	EXPECT_EQ(body_of(Client(server, "/a").read_once()), "second");
}

TEST(HttpServer, SendsRawBytesAsTheyAre)
{
	HttpServer server;
	server.on("/a", raw_answer("not HTTP at all\r\n"));
	Client client(server, "/a");
	EXPECT_EQ(client.read_once(), "not HTTP at all\r\n");
	EXPECT_EQ(client.read_once(), "");
}

TEST(HttpServer, RedirectNamesTheLocation)
{
	HttpServer server;
	server.on("/a", redirect(server.url("/b")));
	std::string message = Client(server, "/a").read_once();
	EXPECT_TRUE(message.starts_with("HTTP/1.1 302 Found\r\n"));
	EXPECT_NE(message.find("Location: " + server.url("/b") + "\r\n"), std::string::npos);
}

TEST(HttpServer, CarriesALargeBody)
{
	HttpServer server;
	std::string body(24 * 1024 * 1024, 'x');
	server.on("/a", answer(body));
	Client client(server, "/a");
	std::size_t received = body_of(client.read_once()).size();
	for (std::string part = client.read_once(); !part.empty(); part = client.read_once()) {
		ASSERT_EQ(part.find_first_not_of('x'), std::string::npos);
		received += part.size();
	}
	EXPECT_EQ(received, body.size());
}

TEST(HttpServer, EndsWithClientsWaiting)
{
	auto server = std::make_unique<HttpServer>();
	server->on("/a", silence());
	server->on("/b", answer("abc").hold());
	Client silent(*server, "/a");
	Client held(*server, "/b");
	ASSERT_TRUE(server->wait_for_requests(2));
	server.reset();
	EXPECT_EQ(silent.read_once(), "");
}

TEST(HttpServer, UnusedPortRefuses)
{
	int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
	sockaddr_in address = {};
	address.sin_family = AF_INET;
	address.sin_port = htons(unused_port());
	address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
	EXPECT_NE(connect(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
	EXPECT_EQ(errno, ECONNREFUSED);
	close(descriptor);
}
