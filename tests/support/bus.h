// SPDX-License-Identifier: ISC
// The caller's side of the message bus, on libubus: calls, deferred calls, events. Each object
// holds a connection of its own and needs no event loop; waiting happens on the connection's
// socket, bounded. Not thread-safe, as libubus is not: use it from one thread only.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/fields.h"
#include "support/wait.h"

namespace router_test
{

struct Reply {
	static constexpr int no_answer = -1; // the wait was over first
	int status = no_answer;		     // ubus status code
	int messages = 0;		     // data messages received
	Fields fields = {};		     // of the last data message
};

struct BusEvent {
	std::string id;
	Fields fields = {};
};

struct BusMethod {
	std::string name;
	Fields arguments = {}; // int32 fields whose value is the argument's BLOBMSG_TYPE_*
};

struct BusObject {
	std::uint32_t id = 0;
	std::string path = {};
	std::vector<BusMethod> methods = {}; // in the order of registration
};

// True once the broker accepts connections.
bool broker_is_up();

// One call whose answer may take its time. A call to an object that does not exist has finished
// with status 4 (not found) at once. Going out of scope closes the connection.
class PendingCall
{
public:
	PendingCall(const std::string &path, const std::string &method,
		    const Fields &arguments = {});
	~PendingCall();
	PendingCall(PendingCall &&) noexcept;

	// Looks at what has arrived, without waiting.
	bool finished();
	// Readable when something has arrived, -1 when nothing can: for a poll of one's own.
	int descriptor() const;
	Reply wait(milliseconds limit = wait_limit());
	// The same while this process's uloop runs, for a test that serves the object itself.
	Reply wait_in_uloop(milliseconds limit = wait_limit());
	// The caller goes away: closes the connection without waiting for the answer.
	void abandon();

private:
	struct Connection;
	std::unique_ptr<Connection> connection_;
};

// One call and its answer; Reply::no_answer when it did not come in time.
Reply call(const std::string &path, const std::string &method, const Fields &arguments = {},
	   milliseconds limit = wait_limit());
// What the broker knows of an object; nothing when there is none of that path.
std::optional<BusObject> find_object(const std::string &path);
// Sends an event; returns the ubus status.
int send_event(const std::string &id, const Fields &fields = {});

// Collects events from the moment of its construction on.
class EventListener
{
public:
	explicit EventListener(const std::string &pattern); // a trailing * matches any rest
	~EventListener();
	EventListener(const EventListener &) = delete;

	// The next event in the order of arrival; nothing when none came in time.
	std::optional<BusEvent> next(milliseconds limit = wait_limit());
	// Waits for an event with that id whose string field "path" has that value.
	bool wait_for_path(const std::string &id, const std::string &path,
			   milliseconds limit = wait_limit());
	// Those that have arrived and were not taken yet. What this process or a finished call
	// caused before is among them only once the broker has passed it on: see `drain`.
	const std::deque<BusEvent> &arrived();
	// Readable when something has arrived: for a poll of one's own.
	int descriptor() const;
	// Waits until everything that the broker received before now has been delivered here, then
	// returns and forgets all events: the way to assert that there was none.
	std::vector<BusEvent> drain();

private:
	struct Connection;
	std::unique_ptr<Connection> connection_;
};

// True when the object is on the bus, or is gone from it, in time (broker's own events).
bool wait_for_object(const std::string &path, milliseconds limit = wait_limit());
bool wait_for_object_gone(const std::string &path, milliseconds limit = wait_limit());

} // namespace router_test
