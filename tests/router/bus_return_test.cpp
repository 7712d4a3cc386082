// SPDX-License-Identifier: ISC
// The bus goes away and comes back: the daemon goes on whatever it is doing, says nothing about it,
// and is back with its object.
#include <csignal>
#include <cstring>
#include <endian.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "router/update_fixture.h"
#include "support/bus_connection.h"

using namespace router_test;

namespace
{

constexpr const char *bus_socket = "/var/run/ubus/ubus.sock";

// Stands where the broker listens, and does with those who connect what the test says.
class FakeBroker
{
public:
	FakeBroker()
	{
		sockaddr_un address = {};
		address.sun_family = AF_UNIX;
		std::string_view(bus_socket).copy(address.sun_path, sizeof(address.sun_path) - 1);
		unlink(bus_socket);
		if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
		    listen(listener_, 5) != 0) {
			throw std::runtime_error("the bus's socket cannot be bound");
		}
	}
	~FakeBroker()
	{
		close(client_);
		close(listener_);
		unlink(bus_socket);
	}
	FakeBroker(const FakeBroker &) = delete;
	FakeBroker &operator=(const FakeBroker &) = delete;

	// Waits for the next one who connects. False when nobody comes.
	bool hang_up() const
	{
		if (!wait_readable(listener_, Deadline())) {
			return false;
		}
		close(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
		return true;
	}

	// Greets the next one, gives its object the number 5000, and keeps the connection. False
	// when nobody comes, or with another wish.
	bool welcome()
	{
		if (!wait_readable(listener_, Deadline())) {
			return false;
		}
		client_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
		send(UBUS_MSG_HELLO, 0, 77, {});
		if (!wait_readable(client_, Deadline())) {
			return false;
		}
		char wish[4096];
		ubus_msghdr head = {};
		const ssize_t got = recv(client_, wish, sizeof(wish), 0);
		std::memcpy(&head, wish, sizeof(head));
		send(UBUS_MSG_DATA, head.seq, 0,
		     {{UBUS_ATTR_OBJID, 5000}, {UBUS_ATTR_OBJTYPE, 6000}});
		send(UBUS_MSG_STATUS, head.seq, 0, {{UBUS_ATTR_STATUS, 0}});
		const std::string_view text(wish, got > 0 ? static_cast<std::size_t>(got) : 0);
		return head.type == UBUS_MSG_ADD_OBJECT &&
		       text.find(std::string_view("fwupdate", 9)) != std::string_view::npos;
	}
	// Says no more to the one who was welcomed, but would still listen.
	void half_close() const
	{
		shutdown(client_, SHUT_WR);
	}
	// Whether the one who was welcomed has sent nothing since.
	bool hears_nothing() const
	{
		char byte;
		return recv(client_, &byte, 1, MSG_DONTWAIT) < 0;
	}

private:
	// `seq` is in the bytes' order, as it came.
	void send(std::uint8_t type, std::uint16_t seq, std::uint32_t peer,
		  const std::vector<std::pair<int, std::uint32_t>> &numbers) const
	{
		const ubus_msghdr head = {0, type, seq, htobe32(peer)};
		blob_buf body = {};
		blob_buf_init(&body, 0);
		for (const auto &[attribute, number] : numbers) {
			blob_put_u32(&body, attribute, number);
		}
		const std::size_t size = blob_raw_len(body.head);
		std::string bytes(sizeof(head) + size, '\0');
		std::memcpy(bytes.data(), &head, sizeof(head));
		std::memcpy(bytes.data() + sizeof(head), body.head, size);
		blob_buf_free(&body);
		EXPECT_EQ(::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL),
			  static_cast<ssize_t>(bytes.size()));
	}

	int client_ = -1;
	int listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

class BusReturn : public UpdateTest
{
protected:
	void lose_bus()
	{
		bus->kill_broker();
		bus->stop_routerd();
	}
	void restore_bus()
	{
		bus->start_broker();
		bus->start_routerd();
	}

	// The object is there and answers; nothing was said about the absence.
	void expect_back()
	{
		EXPECT_TRUE(wait_for_object("fwupdate"));
		EXPECT_EQ(daemon().state().status, 0);
		EXPECT_EQ(text_of(daemon().state().fields, "message"), "");
		EXPECT_EQ(syslog.texts(), std::vector<std::string>{});
	}

	std::size_t descriptors()
	{
		return open_descriptors(daemon().pid()).size();
	}

	bool daemon_sleeps()
	{
		for (const ProcessEntry &entry : all_processes()) {
			if (entry.pid == daemon().pid()) {
				return entry.state == 'S';
			}
		}
		return false;
	}

	// The bus goes while a job waits for its second attempt, whose download will hang until the
	// server lets it go. Both that attempt and a new connection wait for the clock to go on.
	PendingCall lose_bus_before_a_retry()
	{
		offer(answer(good_image()).hold());
		break_starts(1, 1);
		start_without_time();
		PendingCall pending = daemon().start_update({int32_field("attempts", 3)});
		EXPECT_TRUE(syslog.wait_for("Error on reading tmpfs"));
		lose_bus_to_a_sleeper();
		return pending;
	}

	// Returns when the daemon knows.
	void lose_bus_to_a_sleeper()
	{
		lose_bus();
		EXPECT_TRUE(eventually([&] { return daemon_sleeps(); }));
	}

	// A job whose download hangs until the server lets it go.
	PendingCall start_hanging_job(const Fields &arguments = {})
	{
		offer(answer(good_image()).hold());
		start_daemon();
		PendingCall pending = daemon().start_update(arguments);
		EXPECT_TRUE(server.wait_for_requests(firmware, 1));
		return pending;
	}

	// Loses the bus while the daemon waits for the broker inside `check`.
	void lose_bus_inside_check()
	{
		Manifest manifest = nothing_newer();
		manifest.url = server.url(firmware);
		held_server_.on(manifest_path, answer(to_xml(manifest)).hold());
		files.set_manifest_url(held_server_.url(manifest_path));
		PendingCall check("fwupdate", "check");
		ASSERT_TRUE(held_server_.wait_for_requests(1));
		bus->pause_broker();
		held_server_.release_all();
		ASSERT_TRUE(held_server_.wait_for_closed(1));
		ASSERT_TRUE(eventually([&] { return daemon_sleeps(); }));
		lose_bus();
		expect_no_answer(check);
	}

private:
	HttpServer held_server_;
};

TEST_F(BusReturn, ComesBackHoweverOften)
{
	start_daemon();
	const std::size_t before = descriptors();
	for (int times = 0; times < 4; times++) {
		bus->kill_broker();
		bus->start_broker();
		expect_back();
		EXPECT_EQ(descriptors(), before);
	}
	bus->stop_routerd();
	bus->start_routerd();
}

// Whenever the bus comes back, the daemon is there two seconds later: neither its first attempt nor
// the one after an attempt that failed takes longer.
TEST_F(BusReturn, TriesAgainWithinTwoSeconds)
{
	constexpr std::chrono::seconds promised(2);
	start_without_time();
	lose_bus_to_a_sleeper();
	{
		const FakeBroker broker;
		for (int attempt = 0; attempt < 3; attempt++) {
			clock.advance(promised);
			ASSERT_TRUE(broker.hang_up());
			ASSERT_TRUE(eventually([&] { return daemon_sleeps(); }));
		}
	}
	restore_bus();
	clock.advance(promised);
	expect_back();
}

TEST_F(BusReturn, LossInsideAHandlersEventEndsNothing)
{
	start_daemon();
	lose_bus_inside_check();
	EXPECT_TRUE(daemon().running());
	restore_bus();
	expect_back();
}

TEST_F(BusReturn, JobGoesOnWhenTheBusIsLostInsideAHandler)
{
	PendingCall pending = start_hanging_job();
	lose_bus_inside_check();
	restore_bus();
	expect_back();
	server.release_all();
	expect_installed();
	expect_no_answer(pending);
}

TEST_F(BusReturn, DownloadGoesOn)
{
	PendingCall pending = start_hanging_job();
	lose_bus();
	restore_bus();
	expect_back();
	EXPECT_EQ(daemon().state_name(), "FIRMWARE_CONNECT");
	expect_outcome(daemon().update(), {.code = 6, .text = already_updating});
	server.release_all();
	expect_installed();
	expect_no_answer(pending);
	// And the next one is answered as ever.
	expect_outcome(daemon().update(), {});
}

// The loop would tell of such an end for ever.
TEST_F(BusReturn, HalfClosedConnectionIsALostOne)
{
	start_daemon();
	lose_bus();
	{
		FakeBroker broker;
		ASSERT_TRUE(broker.welcome());
		broker.half_close();
		EXPECT_TRUE(broker.hang_up());
	}
	restore_bus();
	expect_back();
}

// The new bus may have given the caller's number to somebody else.
TEST_F(BusReturn, LostRequestIsAnsweredToNobody)
{
	PendingCall pending = start_hanging_job();
	lose_bus();
	{
		FakeBroker broker;
		ASSERT_TRUE(broker.welcome());
		ASSERT_TRUE(eventually([&] { return daemon_sleeps(); }));
		::kill(worker_of_download(1), SIGKILL);
		EXPECT_TRUE(wait_until_gone(image_path)); // comes after the answer
		EXPECT_TRUE(broker.hears_nothing());
	}
	restore_bus();
	EXPECT_TRUE(wait_for_object("fwupdate"));
}

// A connection that fails half-way leaves the number of a closed descriptor behind. The pipe of
// the next download gets that number, and nobody may close it.
TEST_F(BusReturn, BrokerThatHangsUpDoesNotHarmADownload)
{
	const PendingCall pending = lose_bus_before_a_retry();
	{
		const FakeBroker broker;
		clock.go_on(); // half a second for the bus, a whole one for the job
		ASSERT_TRUE(broker.hang_up());
		ASSERT_TRUE(server.wait_for_requests(firmware, 1));
		ASSERT_TRUE(broker.hang_up());
		ASSERT_TRUE(broker.hang_up());
	}
	restore_bus();
	EXPECT_TRUE(wait_for_object("fwupdate"));
	server.release_all();
	expect_installed();
	EXPECT_EQ(downloads(), 1u);
}

// The daemon is stopped meanwhile, so that somebody else takes its name first.
TEST_F(BusReturn, WaitsForItsNameWhenSomebodyElseHasIt)
{
	start_daemon();
	daemon().process().signal(SIGSTOP);
	lose_bus();
	restore_bus();
	EventListener listener("ubus.object.*");
	{
		const Context other = connect_or_throw();
		ubus_object_type type = {};
		ubus_object object = {};
		type.name = "fwupdate";
		object.name = "fwupdate";
		object.type = &type;
		ASSERT_EQ(ubus_add_object(other.get(), &object), 0);
		const auto before = open_descriptors(daemon().pid());
		daemon().process().signal(SIGCONT);
		// The connection is another one, and the refusal has been taken.
		ASSERT_TRUE(eventually([&] {
			return open_descriptors(daemon().pid()) != before && daemon_sleeps();
		}));
	}
	EXPECT_TRUE(listener.wait_for_path("ubus.object.remove", "fwupdate"));
	EXPECT_TRUE(listener.wait_for_path("ubus.object.add", "fwupdate"));
	expect_back();
}

TEST_F(BusReturn, EndsInOrderWhileTheBusIsAway)
{
	may_crash = true; // it is stopped here
	for (const int number : {SIGTERM, SIGINT}) {
		start_daemon();
		lose_bus();
		{
			const FakeBroker broker;
			ASSERT_TRUE(broker.hang_up());
			daemon().process().signal(number);
			EXPECT_TRUE(daemon().process().wait().success()) << number;
		}
		restore_bus();
	}
}

} // namespace
