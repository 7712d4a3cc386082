// SPDX-License-Identifier: ISC
#include "base/log.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <syslog.h>

#include "base/records.h"
#include "base/text.h"

namespace fwupdate
{

namespace
{

constexpr std::size_t LOG_TEXT_SIZE = 512;

} // namespace

int debug_mode;

void log_message(const char *format, ...)
{
	if (debug_mode == 0) {
		return;
	}
	char text[LOG_TEXT_SIZE] = {};
	va_list arguments;
	va_start(arguments, format);
	std::vsnprintf(text, sizeof(text), format, arguments);
	va_end(arguments);

	// Opened for each message: a syslog daemon that was restarted is found again.
	openlog("fwupdate", LOG_PID | LOG_CONS | LOG_NDELAY, LOG_USER);
	syslog(LOG_INFO, "%s", text);
	closelog();

	copy_text(update_context.message, sizeof(update_context.message), text);
}

} // namespace fwupdate
