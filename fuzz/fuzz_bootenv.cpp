// SPDX-License-Identifier: ISC
// What is left of the boot environment when grep, awk and tr are done with it. The first byte says
// whether /proc/mtd can be opened (bit 0: not) and how fw_setenv ends (bits 1 and 2); the rest is
// what the pipeline prints.
#include <cstring>

#include "base/records.h"
#include "fuzz_input.h"
#include "fuzz_target.h"
#include "outside.h"
#include "verify/boot_partition.h"

namespace
{

using namespace fuzz;
using namespace fwupdate;

constexpr int endings[] = {0, EXIT_STATUS_1, KILLED, NOT_RUN};
constexpr std::string_view layout = "dev:    size   erasesize  name\n"
				    "mtd0: 00080000 00010000 \"u-boot\"\n"
				    "mtd1: 00010000 00010000 \"u-boot-env\"\n"
				    "mtd2: 01800000 00010000 \"firmware\"\n"
				    "mtd3: 00300000 00010000 \"kernel\"\n"
				    "mtd4: 00100000 00010000 \"ubi\"\n";

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	reset_daemon();
	Input input(data, size);
	const std::uint8_t kind = input.take_byte();
	const Tool tools[] = {{"fw_printenv", input.take_rest()}};
	outside.tools = tools;
	outside.mtd = layout;
	outside.has_mtd = (kind & 1) == 0;
	outside.setenv_ending = endings[kind >> 1 & 3];

	const int found = find_boot_partition();
	require(found == (outside.has_mtd ? 1 : 0), "/proc/mtd decides");
	// The table's header is a line like the others, and its name reads "am".
	require(found == 0 || std::strcmp(update_context.boot_partition, "am") == 0 ||
			get_partition_size(update_context.boot_partition) > 0,
		"what was found is listed");
	const bool recorded = set_boot_partition(update_context.boot_partition) == 1;
	require(recorded == (outside.setenv_ending == 0 || outside.setenv_ending == KILLED),
		"fw_setenv decides");
	check_daemon();
	return 0;
}
