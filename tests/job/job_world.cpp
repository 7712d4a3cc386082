// SPDX-License-Identifier: ISC
#include "job_world.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include "base/bus.h"
#include "base/log.h"
#include "base/records.h"
#include "daemon/update_reply.h"
#include "discovery/manifest.h"
#include "firmware/download.h"
#include "verify/boot_partition.h"
#include "verify/image.h"

job_test::Surroundings job_test::surroundings;

using job_test::Question;
using job_test::surroundings;

namespace fwupdate
{

int debug_mode;

void log_message(const char *format, ...)
{
	char text[512];
	va_list arguments;
	va_start(arguments, format);
	std::vsnprintf(text, sizeof(text), format, arguments);
	va_end(arguments);
	surroundings.log.emplace_back(text);
}

// A real pipe, whose other end the test holds, and a real file.
int start_download(const char *, const char *, const char *, std::int32_t)
{
	surroundings.starts++;
	if (!surroundings.world->yes(Question::start_succeeds)) {
		return -1;
	}
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0) {
		throw std::runtime_error("no pipe");
	}
	surroundings.pipes.push_back(ends[1]);
	close(open(job_test::image_path, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
	update_context.state = UpdateState::FIRMWARE_CONNECT;
	return ends[0];
}

int verify_image(const char *)
{
	update_context.state = UpdateState::FIRMWARE_CHECK;
	return surroundings.world->yes(Question::image_is_good) ? IMAGE_GOOD : IMAGE_BAD_MAGIC;
}

const char *image_check_text(int)
{
	return "Bad Magic Number";
}

int set_boot_partition(const char *)
{
	return surroundings.world->yes(Question::partition_is_recorded) ? 1 : 0;
}

bool choose_boot_partition(const char *)
{
	return true;
}

int query_update_server()
{
	static constexpr int offers[] = {1, 0, -1};
	const int offer = offers[surroundings.world->answer(Question::offer, 3)];
	update_context.state = offer < 0 ? UpdateState::XML_CONNECT : UpdateState::XML_DONE;
	return offer;
}

int reply_update_result(ubus_request_data *request, bool force)
{
	surroundings.answers.push_back({request->peer, update_context.result, force});
	return 0;
}

} // namespace fwupdate

// Stands before the C library's. Whatever the job wants run, nothing is.
extern "C" int system(const char *command)
{
	if (std::strcmp(command, "sleep 2; sysupgrade -F /tmp/fwupdate.bin > /dev/null 2>&1 &") !=
	    0) {
		throw std::runtime_error(std::string("not the installer: ") + command);
	}
	if (!surroundings.world->yes(Question::installer_starts)) {
		return -1;
	}
	surroundings.installations++;
	return 0;
}
