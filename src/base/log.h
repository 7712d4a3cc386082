// SPDX-License-Identifier: ISC
//
// The daemon's one channel for what it has to say. Without --debug it is silent.
// Every file may call it.
#pragma once

namespace fwupdate
{

// Set once by start-up, when --debug is among the arguments.
extern int debug_mode;

// With --debug: sends the text (at most 511 bytes) to syslog as user.info with
// the ident "fwupdate", and keeps its first 255 bytes, line end included, in
// update_context.message. Without: does nothing at all.
[[gnu::format(printf, 1, 2)]] void log_message(const char *format, ...);

} // namespace fwupdate
