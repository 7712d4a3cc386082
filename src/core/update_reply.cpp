// SPDX-License-Identifier: ISC
#include "core/update_reply.h"

#include <cstddef>

#include "core/base/bus.h"
#include "core/base/records.h"

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

// Clients compare these texts, the misspelt one too.
const char *update_error_text(std::int32_t code)
{
	switch (code) {
	case ERROR_CHECK:
		return "Error on checking update avialability";
	case ERROR_DOWNLOAD:
		return "Error on getting firmware";
	case ERROR_IMAGE:
		return "Error on checking firmware";
	case ERROR_WRITE:
		return "Error on writing firmware";
	case ERROR_ALREADY_UPDATING:
		return "Already updating";
	default:
		return "No Error";
	}
}

int reply_update_result(ubus_request_data *request, bool force)
{
	begin_reply();
	add_text("version", manifest_text(offsetof(UpdateManifest, version)));
	add_text("buildtime", manifest_text(offsetof(UpdateManifest, buildtime)));
	add_text("force_update", force ? "1" : "0");
	add_number("error_code", update_context.result);
	add_text("error_message", result_text());
	return send_reply(request);
}

} // namespace fwupdate
