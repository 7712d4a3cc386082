// SPDX-License-Identifier: ISC
#include "daemon/state_method.h"

#include "base/bus.h"

namespace fwupdate
{

namespace
{

bool download_has_known_size()
{
	return update_context.state == UpdateState::FIRMWARE_CONNECT &&
	       update_context.job.progress.total != 0;
}

void add_progress(const ProgressRecord &progress)
{
	void *table = blobmsg_open_nested(&reply_buffer, "progress", false);
	blobmsg_add_u64(&reply_buffer, "total", progress.total);
	blobmsg_add_u64(&reply_buffer, "now", progress.received);
	blobmsg_close_table(&reply_buffer, table);
}

} // namespace

const char *update_state_name(UpdateState state)
{
	switch (state) {
	case UpdateState::NONE:
		return "NONE";
	case UpdateState::NETWORK_GET:
		return "NETWORK_GET";
	case UpdateState::NETWORK_CHECK:
		return "NETWORK_CHECK";
	case UpdateState::XML_CONNECT:
		return "XML_CONNECT";
	case UpdateState::XML_GET:
		return "XML_GET";
	case UpdateState::XML_PARSE:
		return "XML_PARSE";
	case UpdateState::XML_DONE:
		return "XML_DONE";
	case UpdateState::FIRMWARE_CONNECT:
		return "FIRMWARE_CONNECT";
	case UpdateState::FIRMWARE_GET:
		return "FIRMWARE_GET";
	case UpdateState::WAIT_DELAY:
		return "WAIT_DELAY";
	case UpdateState::FIRMWARE_CHECK:
		return "FIRMWARE_CHECK";
	case UpdateState::FIRMWARE_UPDATE:
		return "FIRMWARE_UPDATE";
	}
	return "UNKNOWN";
}

int handle_state(ubus_context * /*connection*/, ubus_object * /*object*/,
		 ubus_request_data *request, const char * /*method*/, blob_attr * /*message*/)
{
	begin_reply();
	add_text("state", update_state_name(update_context.state));
	add_text("message", update_context.message);
	if (download_has_known_size()) {
		add_progress(update_context.job.progress);
	}
	send_reply(request);
	return UBUS_STATUS_OK;
}

} // namespace fwupdate
