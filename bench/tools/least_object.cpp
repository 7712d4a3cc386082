// SPDX-License-Identifier: ISC
// The least that can stand on the bus and answer: the baseline for what the daemon costs beyond
// libubus and the event loop. Its object `least` has two methods with answers that never change:
// `state` gives the daemon's answer when it is idle, `download` that during a download.
//
//	least_object           connect, register, serve
//	least_object --pidof   first run one `pidof` pipeline, as the daemon does at start
#include <cstdio>
#include <cstring>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

namespace
{

blob_buf reply;

int handle_state(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
		 blob_attr *)
{
	blob_buf_init(&reply, 0);
	blobmsg_add_string(&reply, "state", "NONE");
	blobmsg_add_string(&reply, "message", "");
	ubus_send_reply(bus, request, reply.head);
	return UBUS_STATUS_OK;
}

int handle_download(ubus_context *bus, ubus_object *, ubus_request_data *request, const char *,
		    blob_attr *)
{
	blob_buf_init(&reply, 0);
	blobmsg_add_string(&reply, "state", "FIRMWARE_CONNECT");
	blobmsg_add_string(&reply, "message", "");
	void *progress = blobmsg_open_table(&reply, "progress");
	blobmsg_add_u64(&reply, "total", 1000000);
	blobmsg_add_u64(&reply, "now", 1000);
	blobmsg_close_table(&reply, progress);
	ubus_send_reply(bus, request, reply.head);
	return UBUS_STATUS_OK;
}

const ubus_method methods[] = {
	UBUS_METHOD_NOARG("state", handle_state),
	UBUS_METHOD_NOARG("download", handle_download),
};
ubus_object_type type = UBUS_OBJECT_TYPE("least", methods);
ubus_object object;

void ask_for_own_name(const char *name)
{
	char command[64];
	char line[64];
	std::snprintf(command, sizeof(command), "pidof %s", name);
	FILE *answer = popen(command, "r");
	if (answer == nullptr) {
		return;
	}
	while (std::fgets(line, sizeof(line), answer) != nullptr) {
	}
	pclose(answer);
}

} // namespace

int main(int argc, char **argv)
{
	if (argc > 1 && std::strcmp(argv[1], "--pidof") == 0) {
		ask_for_own_name(argv[0]);
	}
	uloop_init();
	ubus_context *bus = ubus_connect(nullptr);
	if (bus == nullptr) {
		std::fputs("least_object: no bus\n", stderr);
		return 1;
	}
	ubus_add_uloop(bus);
	object.name = "least";
	object.type = &type;
	object.methods = type.methods;
	object.n_methods = type.n_methods;
	if (ubus_add_object(bus, &object) != 0) {
		std::fputs("least_object: the object cannot be registered\n", stderr);
		return 1;
	}
	uloop_run_timeout(-1);
	ubus_free(bus);
	uloop_done();
	return 0;
}
