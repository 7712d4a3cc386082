// SPDX-License-Identifier: ISC
#include <stdexcept>
#include <unistd.h>

#include "support/bus.h"
#include "support/bus_connection.h"

namespace router_test
{

struct EventListener::Connection {
	// First member, so that the library's pointer leads back here.
	struct Handler {
		ubus_event_handler handler = {};
		Connection *owner = nullptr;
	};
	Handler events;
	Handler markers;
	Context context;
	std::deque<BusEvent> arrived;
	std::string marker_id;
	unsigned markers_sent = 0;
	unsigned markers_seen = 0;

	static void on_event(ubus_context *, ubus_event_handler *handler, const char *type,
			     blob_attr *message)
	{
		reinterpret_cast<Handler *>(handler)->owner->arrived.push_back(
			{type, read_fields(message)});
	}
	static void on_marker(ubus_context *, ubus_event_handler *handler, const char *,
			      blob_attr *)
	{
		reinterpret_cast<Handler *>(handler)->owner->markers_seen++;
	}
	void listen(Handler &handler, const std::string &pattern)
	{
		handler.owner = this;
		if (ubus_register_event_handler(context.get(), &handler.handler, pattern.c_str()) !=
		    0) {
			throw std::runtime_error("cannot listen to " + pattern);
		}
	}
};

EventListener::EventListener(const std::string &pattern)
    : connection_(std::make_unique<Connection>())
{
	static unsigned listeners = 0;
	Connection &connection = *connection_;
	connection.context = connect_or_throw();
	connection.marker_id = "router_test.marker." + std::to_string(getpid()) + "." +
			       std::to_string(++listeners);
	connection.events.handler.cb = Connection::on_event;
	connection.markers.handler.cb = Connection::on_marker;
	connection.listen(connection.events, pattern);
	connection.listen(connection.markers, connection.marker_id);
}

EventListener::~EventListener() = default;

int EventListener::descriptor() const
{
	return connection_->context->sock.fd;
}

const std::deque<BusEvent> &EventListener::arrived()
{
	while (take_messages(connection_->context.get(), Deadline(milliseconds(0)))) {
		if (connection_->context->sock.eof) {
			break;
		}
	}
	return connection_->arrived;
}

std::optional<BusEvent> EventListener::next(milliseconds limit)
{
	Deadline deadline(limit);
	while (connection_->arrived.empty()) {
		if (connection_->context->sock.eof ||
		    !take_messages(connection_->context.get(), deadline)) {
			return std::nullopt;
		}
	}
	BusEvent event = std::move(connection_->arrived.front());
	connection_->arrived.pop_front();
	return event;
}

bool EventListener::wait_for_path(const std::string &id, const std::string &path,
				  milliseconds limit)
{
	Deadline deadline(limit);
	while (std::optional<BusEvent> event = next(milliseconds(deadline.remaining()))) {
		if (event->id == id && text_of(event->fields, "path") == path) {
			return true;
		}
	}
	return false;
}

std::vector<BusEvent> EventListener::drain()
{
	Deadline deadline;
	connection_->markers_sent++;
	send_event(connection_->marker_id);
	while (connection_->markers_seen < connection_->markers_sent) {
		if (connection_->context->sock.eof ||
		    !take_messages(connection_->context.get(), deadline)) {
			throw std::runtime_error("the broker does not deliver events");
		}
	}
	std::vector<BusEvent> events(connection_->arrived.begin(), connection_->arrived.end());
	connection_->arrived.clear();
	return events;
}

bool wait_for_object(const std::string &path, milliseconds limit)
{
	EventListener listener("ubus.object.add");
	return find_object(path).has_value() ||
	       listener.wait_for_path("ubus.object.add", path, limit);
}

bool wait_for_object_gone(const std::string &path, milliseconds limit)
{
	EventListener listener("ubus.object.remove");
	return !find_object(path).has_value() ||
	       listener.wait_for_path("ubus.object.remove", path, limit);
}

} // namespace router_test
