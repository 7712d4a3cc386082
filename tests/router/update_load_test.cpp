// SPDX-License-Identifier: ISC
// Twelve callers at the same time while an update runs.
#include "router/update_fixture.h"
#include "support/callers.h"

using namespace router_test;

namespace
{

class UpdateLoad : public UpdateTest
{
};

TEST_F(UpdateLoad, AllCallersAreAnsweredAndTheUpdateIsUnharmed)
{
	constexpr std::size_t callers = 12;
	const std::string image = good_image(64 * 1024);
	const std::vector<BusCall> calls = {
		{"state"}, {"check"}, {"test", {string_field("file", "/var/image.bin")}}};
	const std::size_t pieces = callers * calls.size() + 1;
	files.write("/var/image.bin", image);
	// A piece for each answer: the download goes on as long as the callers do.
	offer(answer(image).in_pieces(pieces).hold());
	start_daemon();
	PendingCall update = daemon().start_update({int32_field("timeout", 600)});
	ASSERT_TRUE(server.wait_for_requests(firmware, 1));

	const std::vector<TimedReply> replies = call_at_once(
		callers, "fwupdate", calls, [this] { server.release(); }, wait_limit());
	EXPECT_EQ(replies.size(), callers * calls.size());
	for (const TimedReply &timed : replies) {
		EXPECT_EQ(timed.reply.status, 0) << timed.method;
		EXPECT_EQ(timed.reply.messages, 1) << timed.method;
		const std::string code = text_of(timed.reply.fields, "error_code");
		EXPECT_EQ(code, timed.method == "state" ? "" : "0") << timed.method;
	}
	EXPECT_FALSE(update.finished());
	server.release();
	expect_outcome(update.wait(), {});
	EXPECT_EQ(downloads(), 1u);
	expect_installed();
	EXPECT_EQ(read_file(image_path), image);
	expect_nothing_leaked();
}

} // namespace
