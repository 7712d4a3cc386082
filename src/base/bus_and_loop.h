// SPDX-License-Identifier: ISC
//
// The bus and event loop libraries are C and come without C++ guards: this is
// the one place that includes them. Everything else includes this file.
#pragma once

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}
