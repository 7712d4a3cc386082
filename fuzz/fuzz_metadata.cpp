// SPDX-License-Identifier: ISC
// What jsonfilter finds in a firmware's metadata and in the board's data. The input is a byte that
// says how fwtool ends (bits 0 and 1; 0 is success), then custom ID, model and product name.
#include <cstring>

#include "base/records.h"
#include "fuzz_input.h"
#include "fuzz_target.h"
#include "outside.h"
#include "verify/image.h"
#include "verify/metadata.h"

namespace
{

using namespace fuzz;

constexpr int endings[] = {0, EXIT_STATUS_1, KILLED, NOT_RUN};

// No U-Boot image: the metadata count.
constexpr std::string_view file = "firmware";

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	reset_daemon();
	Input input(data, size);
	outside.fwtool_ending = endings[input.take_byte() & 3];
	outside.image = file;
	const std::string_view customid = input.take_short_piece();
	const std::string_view model = input.take_short_piece();
	const std::string_view product = input.take_rest();
	const Tool tools[] = {{"@.version.customid", customid},
			      {"supported_devices", model},
			      {"product_name", product}};
	outside.tools = tools;

	const int code = fwupdate::verify_image("/tmp/fwupdate.bin");
	require(code == fwupdate::IMAGE_GOOD || code == fwupdate::IMAGE_BAD_MAGIC ||
			code == fwupdate::IMAGE_BAD_MODEL,
		"the metadata decide alone");
	require(strnlen(fwupdate::fw_model_name, fwupdate::MODEL_NAME_SIZE) <
			fwupdate::MODEL_NAME_SIZE,
		"a model from metadata ends in its field");
	require(code != fwupdate::IMAGE_GOOD || fwupdate::fw_model_name[0] != '\0',
		"a firmware names its model");
	check_daemon();
	return 0;
}
