// SPDX-License-Identifier: ISC
//
// miniz stands at one of two places, depending on who packaged it.
#pragma once

#if __has_include(<miniz.h>)
#include <miniz.h>
#else
#include <miniz/miniz.h>
#endif
