// SPDX-License-Identifier: ISC
#include "support/bus.h"

#include "support/bus_connection.h"

namespace router_test
{
namespace
{

BusObject to_object(const ubus_object_data *data)
{
	BusObject object{.id = data->id, .path = data->path};
	for (const Field &method : read_fields(data->signature)) {
		object.methods.push_back({method.name, method.members});
	}
	return object;
}

} // namespace

bool broker_is_up()
{
	return connect_to_broker() != nullptr;
}

struct PendingCall::Connection {
	Context context;
	ubus_request request = {};
	Reply reply;
	bool done = false;
	bool in_uloop = false;

	static Connection *of(ubus_request *request)
	{
		return static_cast<Connection *>(request->priv);
	}
	static void on_data(ubus_request *request, int, blob_attr *message)
	{
		Reply &reply = of(request)->reply;
		reply.messages++;
		reply.fields = read_fields(message);
	}
	static void on_complete(ubus_request *request, int status)
	{
		Connection *connection = of(request);
		connection->reply.status = status;
		connection->done = true;
		if (connection->in_uloop) {
			uloop_end();
		}
	}
};

PendingCall::PendingCall(const std::string &path, const std::string &method,
			 const Fields &arguments)
    : connection_(std::make_unique<Connection>())
{
	Connection &connection = *connection_;
	connection.context = connect_or_throw();
	std::uint32_t id = 0;
	int status = ubus_lookup_id(connection.context.get(), path.c_str(), &id);
	MessageBuffer message(arguments);
	if (status == 0) {
		status = ubus_invoke_async(connection.context.get(), id, method.c_str(),
					   message.head(), &connection.request);
	}
	if (status != 0) {
		connection.reply.status = status;
		connection.done = true;
		return;
	}
	connection.request.priv = &connection;
	connection.request.data_cb = Connection::on_data;
	connection.request.complete_cb = Connection::on_complete;
	ubus_complete_request_async(connection.context.get(), &connection.request);
}

PendingCall::~PendingCall() = default;
PendingCall::PendingCall(PendingCall &&) noexcept = default;

bool PendingCall::finished()
{
	while (!connection_->done && connection_->context &&
	       take_messages(connection_->context.get(), Deadline(milliseconds(0)))) {
		if (connection_->context->sock.eof) {
			break;
		}
	}
	return connection_->done;
}

int PendingCall::descriptor() const
{
	return connection_->context ? connection_->context->sock.fd : -1;
}

Reply PendingCall::wait(milliseconds limit)
{
	Deadline deadline(limit);
	ubus_context *context = connection_->context.get();
	while (!connection_->done && context != nullptr && !context->sock.eof) {
		if (!take_messages(context, deadline)) {
			break;
		}
	}
	return connection_->reply;
}

Reply PendingCall::wait_in_uloop(milliseconds limit)
{
	ubus_context *context = connection_->context.get();
	if (connection_->done || context == nullptr) {
		return connection_->reply;
	}
	connection_->in_uloop = true;
	uloop_fd_add(&context->sock, ULOOP_READ | ULOOP_BLOCKING);
	// With a limit the loop may return after any single event.
	for (Deadline deadline(limit); !connection_->done && !deadline.passed();) {
		uloop_run_timeout(deadline.remaining());
	}
	uloop_fd_delete(&context->sock);
	connection_->in_uloop = false;
	return connection_->reply;
}

void PendingCall::abandon()
{
	connection_->context.reset();
}

Reply call(const std::string &path, const std::string &method, const Fields &arguments,
	   milliseconds limit)
{
	return PendingCall(path, method, arguments).wait(limit);
}

std::optional<BusObject> find_object(const std::string &path)
{
	std::optional<BusObject> found;
	Context context = connect_or_throw();
	ubus_lookup(
		context.get(), path.c_str(),
		[](ubus_context *, ubus_object_data *data, void *result) {
			*static_cast<std::optional<BusObject> *>(result) = to_object(data);
		},
		&found);
	return found;
}

int send_event(const std::string &id, const Fields &fields)
{
	Context context = connect_or_throw();
	MessageBuffer message(fields);
	return ubus_send_event(context.get(), id.c_str(), message.head());
}

} // namespace router_test
