// SPDX-License-Identifier: ISC
#include "base/text.h"

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace fwupdate
{

namespace
{

// A 64-bit long must stop where the target's 32-bit long stops.
std::int32_t parse_number(const char *text, int base)
{
	using Limits = std::numeric_limits<std::int32_t>;
	const long value = std::strtol(text, nullptr, base);
	return static_cast<std::int32_t>(
		std::clamp(value, long{Limits::min()}, long{Limits::max()}));
}

} // namespace

void copy_text(char *field, std::size_t size, const char *text)
{
	std::strncpy(field, text, size - 1);
	field[size - 1] = '\0';
}

void strip_line_feed(char *text)
{
	const std::size_t length = std::strlen(text);
	if (length > 0 && text[length - 1] == '\n') {
		text[length - 1] = '\0';
	}
}

void upper_case(char *text)
{
	for (; *text != '\0'; text++) {
		*text = static_cast<char>(std::toupper(static_cast<unsigned char>(*text)));
	}
}

std::int32_t parse_decimal(const char *text)
{
	return parse_number(text, 10);
}

std::int32_t parse_hexadecimal(const char *text)
{
	return parse_number(text, 16);
}

std::int32_t seconds_to_milliseconds(std::int32_t seconds)
{
	return static_cast<std::int32_t>(static_cast<std::uint32_t>(seconds) * 1000U);
}

bool format_text(char *buffer, std::size_t size, const char *format, ...)
{
	va_list arguments;
	va_start(arguments, format);
	const int length = std::vsnprintf(buffer, size, format, arguments);
	va_end(arguments);
	// Negative: a wide character without an encoding; no format here has one.
	return length >= 0 && static_cast<std::size_t>(length) < size;
}

} // namespace fwupdate
