// SPDX-License-Identifier: ISC
// routerd: the router's own objects on the bus, as far as the daemon asks for them.
//
//	system                 board    answers with board.json
//	network.interface.wan  status   answers with wan.json
//
// The files are read at every call, so whoever changes one changes the router. A call whose file is
// missing or broken fails; routerd goes on. It ends when the broker does.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unistd.h>

#include "bus_headers.h"

namespace
{

// Half of what the bus takes in one message: far beyond any router's, and safe to convert.
constexpr std::size_t file_limit = 512 * 1024;

const char *folder = "/etc/router";
bool broker_lost = false;
blob_buf reply;

struct FileCloser {
	void operator()(FILE *stream) const
	{
		fclose(stream);
	}
};

// Fills `text`; returns a ubus status and says on standard error what is wrong.
int read_file(const std::string &path, std::string &text)
{
	const std::unique_ptr<FILE, FileCloser> stream(fopen(path.c_str(), "re"));
	if (!stream) {
		fprintf(stderr, "routerd: %s: %s\n", path.c_str(), strerror(errno));
		return UBUS_STATUS_NOT_FOUND;
	}
	text.resize(file_limit + 1);
	text.resize(fread(text.data(), 1, text.size(), stream.get()));
	if (ferror(stream.get()) != 0) {
		fprintf(stderr, "routerd: %s: %s\n", path.c_str(), strerror(errno));
		return UBUS_STATUS_UNKNOWN_ERROR;
	}
	if (text.size() > file_limit) {
		fprintf(stderr, "routerd: %s: longer than %zu bytes\n", path.c_str(), file_limit);
		return UBUS_STATUS_UNKNOWN_ERROR;
	}
	return UBUS_STATUS_OK;
}

int answer_with_file(ubus_context *bus, ubus_request_data *request, const char *name)
{
	const std::string path = std::string(folder) + "/" + name;
	std::string text;
	const int status = read_file(path, text);
	if (status != UBUS_STATUS_OK) {
		return status;
	}
	blob_buf_init(&reply, 0);
	if (!blobmsg_add_json_from_string(&reply, text.c_str())) {
		fprintf(stderr, "routerd: %s: not a JSON object\n", path.c_str());
		return UBUS_STATUS_UNKNOWN_ERROR;
	}
	return ubus_send_reply(bus, request, reply.head);
}

int handle_board(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
		 blob_attr *)
{
	return answer_with_file(bus, request, "board.json");
}

int handle_status(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
		  blob_attr *)
{
	return answer_with_file(bus, request, "wan.json");
}

// One object with one method that takes no arguments.
struct Service {
	ubus_method method = {};
	ubus_object_type type = {};
	ubus_object object = {};

	Service(const char *path, const char *name, ubus_handler_t handler)
	{
		method.name = name;
		method.handler = handler;
		type.name = path;
		type.methods = &method;
		type.n_methods = 1;
		object.name = path;
		object.type = &type;
		object.methods = &method;
		object.n_methods = 1;
	}
	Service(const Service &) = delete;
	Service &operator=(const Service &) = delete;
};

Service services[] = {{"system", "board", handle_board},
		      {"network.interface.wan", "status", handle_status}};

void on_broker_lost(ubus_context *)
{
	fprintf(stderr, "routerd: the broker is gone\n");
	broker_lost = true;
	uloop_end();
}

bool add_services(ubus_context *bus)
{
	for (Service &service : services) {
		const int status = ubus_add_object(bus, &service.object);
		if (status != UBUS_STATUS_OK) {
			fprintf(stderr, "routerd: object %s: %s\n", service.object.name,
				ubus_strerror(status));
			return false;
		}
	}
	return true;
}

int usage()
{
	fprintf(stderr, "Usage: routerd [-s SOCKET] [-d FOLDER]\n");
	return 2;
}

} // namespace

int main(int argc, char **argv)
{
	const char *socket = nullptr; // the usual one
	for (int option; (option = getopt(argc, argv, "+s:d:")) != -1;) {
		switch (option) {
		case 's':
			socket = optarg;
			break;
		case 'd':
			folder = optarg;
			break;
		default:
			return usage();
		}
	}
	if (optind != argc) {
		return usage();
	}
	uloop_init();
	ubus_context *bus = ubus_connect(socket);
	if (!bus) {
		fprintf(stderr, "routerd: no broker\n");
		return 1;
	}
	bus->connection_lost = on_broker_lost;
	ubus_add_uloop(bus);
	const bool served = add_services(bus);
	if (served) {
		uloop_run();
	}
	ubus_free(bus);
	blob_buf_free(&reply);
	uloop_done();
	return served && !broker_lost ? 0 : 1;
}
