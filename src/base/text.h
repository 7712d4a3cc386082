// SPDX-License-Identifier: ISC
//
// Texts in fixed-size character arrays: bounded copies, bounded formatting and
// number parsing with the limits of the 32-bit target on every platform. Knows
// nothing of the daemon's records.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fwupdate
{

// Capacity of a text that holds any 32-bit number in decimal, terminator
// included.
inline constexpr std::size_t NUMBER_TEXT_SIZE = 12;

// Copies `text` into `field` of `size` bytes, cut to size - 1 characters and
// always terminated; the rest of the field becomes zero.
void copy_text(char *field, std::size_t size, const char *text);

// Takes away one line feed at the end of `text`, if there is one. A carriage
// return before it stays.
void strip_line_feed(char *text);

// Turns the ASCII letters a to z of `text` into A to Z, in place.
void upper_case(char *text);

// The number that `text` begins with, in base 10 or 16, after any blanks and a
// sign: 0 when there is none, the nearest limit when it does not fit 32 bits.
std::int32_t parse_decimal(const char *text);
std::int32_t parse_hexadecimal(const char *text);

// Seconds in milliseconds, as the target's 32-bit multiplication has it: values
// beyond about 24 days wrap around.
std::int32_t seconds_to_milliseconds(std::int32_t seconds);

// Formats into `buffer` of `size` bytes. True when the whole text fitted; otherwise
// the buffer holds as much as fitted, terminated.
[[gnu::format(printf, 3, 4)]] bool format_text(char *buffer, std::size_t size, const char *format,
					       ...);

} // namespace fwupdate
