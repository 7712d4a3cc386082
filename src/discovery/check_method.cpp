// SPDX-License-Identifier: ISC
#include "discovery/check_method.h"

#include "base/bus.h"
#include "base/records.h"
#include "base/update_error.h"
#include "discovery/manifest.h"

namespace fwupdate
{

namespace
{

void add_offer()
{
	add_text("version", manifest_text(update_manifest.version));
	add_text("buildtime", manifest_text(update_manifest.buildtime));
	add_text("releasenotes", manifest_text(update_manifest.release_notes));
	add_text("force", manifest_text(update_manifest.force_update));
	add_number("need_update", update_context.need_update);
}

void add_no_offer()
{
	add_text("version", "");
	add_text("buildtime", "");
	add_text("releasenotes", "");
	add_text("force", "");
	add_text("need_update", "");
}

} // namespace

int handle_check(ubus_context * /*connection*/, ubus_object * /*object*/,
		 ubus_request_data *request, const char * /*method*/, blob_attr * /*message*/)
{
	update_context.message[0] = '\0';
	update_context.state = UpdateState::NONE;
	update_context.need_update = query_update_server();
	update_context.result = update_context.need_update < 0 ? ERROR_CHECK : NO_ERROR;

	begin_reply();
	if (update_context.result == NO_ERROR) {
		add_offer();
	} else {
		add_no_offer();
	}
	add_number("error_code", update_context.result);
	add_text("error_message", update_error_text(update_context.result));
	// Misspelt since its first release; listeners know it by this name.
	send_event("fwupdate.avaliable");
	send_reply(request);
	return UBUS_STATUS_OK;
}

} // namespace fwupdate
