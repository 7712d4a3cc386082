// SPDX-License-Identifier: ISC
// The flash layout: the input is a byte that says what is asked (bits 0 and 1), the name of a
// partition, its length in front, and /proc/mtd.
#include <cstring>
#include <string>

#include "base/records.h"
#include "fuzz_input.h"
#include "fuzz_target.h"
#include "outside.h"
#include "verify/boot_partition.h"

namespace
{

using namespace fuzz;
using namespace fwupdate;

enum Question { SIZE, SIZE_OF_UBI, CURRENT, BOOTPART };

void find_with(const Tool &bootpart)
{
	outside.tools = std::span(&bootpart, 1);
	require(find_boot_partition() == 1, "/proc/mtd can be opened");
	get_partition_size(update_context.boot_partition);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	reset_daemon();
	Input input(data, size);
	const std::uint8_t question = input.take_byte();
	const std::string name(input.take_short_piece());
	outside.mtd = input.take_rest();
	switch (static_cast<Question>(question & 3)) {
	case SIZE:
		get_partition_size(name.c_str());
		break;
	case SIZE_OF_UBI:
		require(get_partition_size("ubi") == 24 * 1024 * 1024, "ubi has one size");
		break;
	case CURRENT:
		find_with({"fw_printenv", ""});
		break;
	case BOOTPART:
		find_with({"fw_printenv", name});
		break;
	}
	check_daemon();
	return 0;
}
