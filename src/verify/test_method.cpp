// SPDX-License-Identifier: ISC
#include "verify/test_method.h"

#include "base/bus.h"
#include "base/log.h"
#include "base/records.h"
#include "base/update_error.h"
#include "verify/boot_partition.h"
#include "verify/image.h"

namespace fwupdate
{

namespace
{

// The order of test_policy.
enum { ARGUMENT_FILE, ARGUMENT_PARTITION };

// The code's own text belongs to `test` alone: the other methods have none for it.
const char *result_text()
{
	if (update_context.result == ERROR_NO_FILE) {
		return "Error, image file not set";
	}
	return update_error_text(update_context.result);
}

// The image-check code; 0 when there is no file to check.
int check_file_argument(const char *path)
{
	if (path == nullptr) {
		update_context.result = ERROR_NO_FILE;
		return 0;
	}
	const int code = verify_image(path);
	if (code < 0) {
		log_message("%s [%d]", image_check_text(code), code);
		update_context.result = ERROR_IMAGE;
	}
	return code;
}

} // namespace

const blobmsg_policy test_policy[TEST_ARGUMENTS] = {
	{"file", BLOBMSG_TYPE_STRING},
	{"partition", BLOBMSG_TYPE_STRING},
};

int handle_test(ubus_context * /*connection*/, ubus_object * /*object*/, ubus_request_data *request,
		const char * /*method*/, blob_attr *message)
{
	blob_attr *arguments[TEST_ARGUMENTS];

	update_context.result = NO_ERROR;
	parse_arguments(test_policy, arguments, message);
	if (!choose_boot_partition(text_or_null(arguments[ARGUMENT_PARTITION]))) {
		return UBUS_STATUS_INVALID_ARGUMENT;
	}
	const int code = check_file_argument(text_or_null(arguments[ARGUMENT_FILE]));
	update_context.state = UpdateState::NONE;

	begin_reply();
	add_number("error_code", update_context.result);
	add_text("error_message", result_text());
	add_number("check_code", code);
	// Always this text: what the check found is in the log.
	add_text("check_message", "No Error");
	send_reply(request);
	return UBUS_STATUS_OK;
}

} // namespace fwupdate
