// SPDX-License-Identifier: ISC
#include "daemon/update_method.h"

#include <cstdint>

#include "base/bus.h"
#include "base/records.h"
#include "base/text.h"
#include "base/update_error.h"
#include "daemon/update_job.h"
#include "daemon/update_reply.h"
#include "discovery/manifest.h"
#include "verify/boot_partition.h"

namespace fwupdate
{

const blobmsg_policy update_policy[UPDATE_ARGUMENTS] = {
	{"force", BLOBMSG_TYPE_STRING},	 {"partition", BLOBMSG_TYPE_STRING},
	{"timeout", BLOBMSG_TYPE_INT32}, {"attempts", BLOBMSG_TYPE_INT32},
	{"delay", BLOBMSG_TYPE_INT32},
};

namespace
{

// The order of update_policy.
enum { FORCE, PARTITION, TIMEOUT, ATTEMPTS, DELAY };

std::int32_t number_or(blob_attr *value, std::int32_t fallback)
{
	return value != nullptr ? static_cast<std::int32_t>(blobmsg_get_u32(value)) : fallback;
}

bool is_forced(const char *text)
{
	return text != nullptr && parse_decimal(text) == 1;
}

UpdateArguments read_arguments(blob_attr *message)
{
	blob_attr *values[UPDATE_ARGUMENTS];
	parse_arguments(update_policy, values, message);
	return {
		.partition = text_or_null(values[PARTITION]),
		.timeout = number_or(values[TIMEOUT], 30),
		.attempts = number_or(values[ATTEMPTS], 1),
		.delay = number_or(values[DELAY], 0),
		.force = is_forced(text_or_null(values[FORCE])),
	};
}

// What query_update_server returned: now, or when the last query still stands, then.
int query_unless_one_stands()
{
	if (update_context.state != UpdateState::XML_DONE) {
		update_context.need_update = query_update_server();
	}
	return update_context.need_update;
}

int answer_now(ubus_request_data *request, bool force, UpdateError result)
{
	update_context.result = result;
	reply_update_result(request, force);
	return UBUS_STATUS_OK;
}

} // namespace

int handle_update(ubus_context * /*connection*/, ubus_object * /*object*/,
		  ubus_request_data *request, const char * /*method*/, blob_attr *message)
{
	update_context.result = NO_ERROR;
	update_context.message[0] = '\0';
	const UpdateArguments arguments = read_arguments(message);
	// Taken before anything is decided: it counts for a running job as well.
	if (!choose_boot_partition(arguments.partition)) {
		return UBUS_STATUS_INVALID_ARGUMENT;
	}

	const int offer = query_unless_one_stands();
	if (offer < 0) {
		return answer_now(request, arguments.force, ERROR_CHECK);
	}
	if (offer != 1 && !arguments.force) {
		return answer_now(request, arguments.force, NO_ERROR);
	}
	if (update_context.job.active) {
		return answer_now(request, arguments.force, ERROR_ALREADY_UPDATING);
	}
	if (!start_job(request, arguments)) {
		return answer_now(request, arguments.force, ERROR_DOWNLOAD);
	}
	return UBUS_STATUS_OK;
}

} // namespace fwupdate
