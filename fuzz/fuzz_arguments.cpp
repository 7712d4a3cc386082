// SPDX-License-Identifier: ISC
// What callers send. The input begins with what `df` prints, its length in front, and a byte that
// says whether there are fw_printenv and fw_setenv (bit 0: not), /proc/mtd (bit 1: not) and files
// that can be opened (bit 2: not). Then come calls: a byte for the method, and its arguments as
// they lie in the message, their length in front.
#include "base/bus.h"
#include "base/records.h"
#include "daemon/state_method.h"
#include "daemon/update_method.h"
#include "discovery/check_method.h"
#include "fuzz_input.h"
#include "fuzz_target.h"
#include "outside.h"
#include "verify/test_method.h"

namespace
{

using namespace fuzz;
using namespace fwupdate;

constexpr int most_calls = 4;
constexpr std::string_view offer =
	"<update><buildtime>190000000</buildtime><url>http://192.0.2.1/f.bin</url></update>";
constexpr std::string_view layout = "mtd2: 01800000 00010000 \"firmware2\"\n"
				    "mtd3: 00300000 00010000 \"kernel\"\n";

using Handler = int (*)(ubus_context *, ubus_object *, ubus_request_data *, const char *,
			blob_attr *);
constexpr Handler handlers[] = {handle_update, handle_test, handle_check, handle_state};

// The attribute as it lies in the message: its head says how long it is.
std::unique_ptr<char[]> message_of(std::string_view arguments)
{
	auto message = std::make_unique<char[]>(sizeof(blob_attr) + arguments.size());
	std::copy(arguments.begin(), arguments.end(), message.get() + sizeof(blob_attr));
	reinterpret_cast<blob_attr *>(message.get())->id_len =
		cpu_to_be32(static_cast<std::uint32_t>(sizeof(blob_attr) + arguments.size()));
	return message;
}

void call(Input &input)
{
	const std::uint8_t kind = input.take_byte();
	const auto message = message_of(input.take_piece());
	ubus_request_data request = {};
	outside.replies = 0;
	const int status =
		handlers[kind & 3](nullptr, nullptr, &request, "", // the name is not read
				   reinterpret_cast<blob_attr *>(message.get()));
	if (request.deferred) {
		require(status == UBUS_STATUS_OK && outside.replies == 0, "the answer comes later");
	} else {
		require(outside.replies == (status == UBUS_STATUS_OK ? 1U : 0U),
			"an answer or a refusal");
	}
	check_daemon();
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	reset_daemon();
	Input input(data, size);
	const Tool tools[] = {{"df /tmp", input.take_short_piece()}};
	const std::uint8_t kind = input.take_byte();
	outside.tools = tools;
	outside.answer = std::span(&offer, 1);
	outside.mtd = layout;
	outside.image = "firmware";
	outside.has_boot_tools = (kind & 1) == 0;
	outside.has_mtd = (kind & 2) == 0;
	outside.has_image = (kind & 4) == 0;
	for (int i = 0; i < most_calls && !input.empty(); i++) {
		call(input);
	}
	return 0;
}
