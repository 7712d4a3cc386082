// SPDX-License-Identifier: ISC
// An update job and all that happens to it: what its worker's pipe holds at each turn of the loop,
// cut anywhere, the pipe's end, the timer, other calls meanwhile. The first byte says how many
// attempts the job has (bits 0 and 1), whether the image is good (bit 2) and whether fw_setenv
// fails (bit 3); each further byte is an event: bits 0 to 2 say which, and for what comes through
// the pipe bits 3 to 7 are the number of the bytes that follow.
#include "base/bus.h"
#include "base/records.h"
#include "daemon/state_method.h"
#include "daemon/update_method.h"
#include "fuzz_input.h"
#include "fuzz_target.h"
#include "outside.h"
#include "verify/test_method.h"

namespace
{

using namespace fuzz;
using namespace fwupdate;

enum Event { RECORDS, RECORDS_AND_END, END, TIMER, STATE, TEST, UPDATE, NO_PROCESS };

constexpr int most_events = 32;
constexpr std::string_view layout = "mtd2: 01800000 00010000 \"firmware2\"\n";
constexpr std::string_view no_uimage = "firmware";

UpdateJob &job = update_context.job;

std::size_t deferred; // requests whose answer comes later

// The server has been asked already and offers something newer; asking is fuzz_manifest's.
void update(int attempts)
{
	update_context.state = UpdateState::XML_DONE;
	update_context.need_update = 1;
	static blob_buf message;
	blob_buf_init(&message, 0);
	blobmsg_add_u32(&message, "attempts", static_cast<std::uint32_t>(attempts));
	ubus_request_data request = {};
	const int status = handle_update(nullptr, nullptr, &request, "update", message.head);
	require(status == UBUS_STATUS_OK, "an update is accepted");
	deferred += request.deferred ? 1 : 0;
}

void pipe_event(std::string_view bytes, bool ended)
{
	if (!outside.watch_armed) {
		return;
	}
	outside.pipe = bytes;
	outside.pipe_ended = ended;
	job.watch.error = ended;
	job.watch.cb(&job.watch, bytes.empty() && ended ? 0 : ULOOP_READ);
}

void happen(Input &input)
{
	const std::uint8_t byte = input.take_byte();
	ubus_request_data request = {};
	switch (static_cast<Event>(byte & 7)) {
	case RECORDS:
		pipe_event(input.take(byte >> 3), false);
		break;
	case RECORDS_AND_END:
		pipe_event(input.take(byte >> 3), true);
		break;
	case END:
		pipe_event({}, true);
		break;
	case TIMER:
		if (outside.timer_armed) {
			outside.timer_armed = false;
			job.timer.cb(&job.timer);
		}
		break;
	case STATE:
		handle_state(nullptr, nullptr, &request, "state", nullptr);
		break;
	case TEST:
		handle_test(nullptr, nullptr, &request, "test", nullptr);
		break;
	case UPDATE:
		update(1);
		break;
	case NO_PROCESS:
		outside.can_fork = !outside.can_fork;
		break;
	}
}

// A job is waiting for something, or it has been answered.
void check_job()
{
	require(outside.completed <= deferred, "no request is answered twice");
	require(!outside.watch_armed || job.active, "a pipe belongs to a job");
	require(!outside.watch_armed || outside.timer_armed, "a download has a limit");
	require(job.active || outside.completed == deferred, "a job that ended was answered");
	require(job.active || !outside.timer_armed, "a job that ended waits for nothing");
	require(outside.installed <= outside.completed, "an installation follows an answer");
	check_daemon();
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	reset_daemon();
	Input input(data, size);
	const std::uint8_t kind = input.take_byte();
	outside.mtd = layout;
	outside.image = no_uimage;
	outside.fwtool_ending = (kind & 4) != 0 ? 0 : EXIT_STATUS_1;
	outside.setenv_ending = (kind & 8) != 0 ? EXIT_STATUS_1 : 0;

	deferred = 0;
	update(kind & 3);
	check_job();
	for (int i = 0; i < most_events && !input.empty(); i++) {
		happen(input);
		check_job();
	}
	return 0;
}
