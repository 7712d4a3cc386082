// SPDX-License-Identifier: ISC
// The bus libraries are C and come without C++ guards; the test library includes them here only.
#pragma once

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}
