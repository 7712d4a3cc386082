// SPDX-License-Identifier: ISC
#include "daemon/update_reply.h"

#include "base/bus.h"
#include "base/records.h"
#include "base/update_error.h"

namespace fwupdate
{

namespace
{

// The log line of the step that failed says more than the code's own text.
bool wants_last_message(std::int32_t code)
{
	return code == ERROR_DOWNLOAD || code == ERROR_IMAGE || code == ERROR_WRITE;
}

const char *result_text()
{
	if (wants_last_message(update_context.result) && update_context.message[0] != '\0') {
		return update_context.message;
	}
	return update_error_text(update_context.result);
}

} // namespace

int reply_update_result(ubus_request_data *request, bool force)
{
	begin_reply();
	add_text("version", manifest_text(update_manifest.version));
	add_text("buildtime", manifest_text(update_manifest.buildtime));
	add_text("force_update", force ? "1" : "0");
	add_number("error_code", update_context.result);
	add_text("error_message", result_text());
	return send_reply(request);
}

} // namespace fwupdate
