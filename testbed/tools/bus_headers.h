// SPDX-License-Identifier: ISC
// The bus libraries are C and come without C++ guards; the tools written in C++ include them here.
#pragma once

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubus.h>
}
