// SPDX-License-Identifier: ISC
// What the update server answers: any bytes in any pieces, several queries one after another, as
// an element that is missing keeps its value. The input is a list of answers: a byte that says how
// many pieces it has (bits 0 and 1) and whether the transfer breaks after them (bit 2), and each
// piece with its length in front.
#include <array>
#include <cstring>

#include "base/records.h"
#include "discovery/check_method.h"
#include "fuzz_input.h"
#include "fuzz_target.h"
#include "outside.h"

namespace
{

using namespace fuzz;

constexpr int most_answers = 4;

void check_values()
{
	const fwupdate::UpdateManifest &values = fwupdate::update_manifest;
	require(strnlen(values.buildtime, sizeof(values.buildtime)) <= 9, "nine digits are kept");
	require(values.archive[2] == 0 && values.force_update[2] == 0, "two bytes of a flag");
}

void query(Input &input)
{
	const std::uint8_t kind = input.take_byte();
	std::array<std::string_view, 3> pieces;
	const std::size_t count = kind & 3;
	for (std::size_t i = 0; i < count; i++) {
		pieces[i] = input.take_piece();
	}
	outside.answer = std::span(pieces).first(count);
	outside.transfer_breaks = (kind & 4) != 0;
	outside.replies = 0;
	outside.events = 0;

	ubus_request_data request = {};
	const int status = fwupdate::handle_check(nullptr, nullptr, &request, "check", nullptr);
	require(status == UBUS_STATUS_OK, "check succeeds");
	require(outside.replies == 1 && outside.events == 1, "one answer, one event");
	require((fwupdate::update_context.need_update >= 0) ==
			(fwupdate::update_context.state == fwupdate::UpdateState::XML_DONE),
		"a query that succeeded stands");
	check_values();
	check_daemon();
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	reset_daemon();
	Input input(data, size);
	for (int i = 0; i < most_answers && !input.empty(); i++) {
		query(input);
	}
	return 0;
}
