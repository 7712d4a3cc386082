// SPDX-License-Identifier: ISC
//
// Which flash partition the router boots from: chosen by a caller, or found in
// the U-Boot variable `bootpart` and in /proc/mtd, and recorded in `bootpart` once
// an image has passed. No "other" partition is computed: the one that is current
// is written back. All calls block while the shell tools run.
#pragma once

#include <cstdint>

namespace fwupdate
{

// Takes the name that a request gave into update_context.boot_partition. False, and
// nothing changed, when it is empty or longer than 31 characters; true when it was
// taken, and when the request gave none (null).
bool choose_boot_partition(const char *name);

// Fills update_context.boot_partition: with `bootpart` when /proc/mtd lists that
// partition, else with the current partition, which is the one listed before
// "kernel", or "ubi", whichever of these two comes first. Returns 1 (also when
// neither is listed: the field stays empty then and any size fits), or 0 when
// /proc/mtd cannot be opened.
int find_boot_partition();

// Size in bytes of a partition, from /proc/mtd; "ubi" counts 24 MiB. 0 when it is
// not listed.
std::int32_t get_partition_size(const char *name);

// Records the name in `bootpart`. Returns 1, also on a router without fw_setenv, or
// 0 when fw_setenv failed.
int set_boot_partition(const char *name);

} // namespace fwupdate
