// SPDX-License-Identifier: ISC
// What an update server can do wrong while the firmware is downloaded, row by row of
// docs/reliability.md. What a test leaves behind is compared by its fixture.
#include "router/update_fixture.h"
#include "support/fault_row.h"

using namespace router_test;

namespace
{

constexpr const char *timed_out = "timeout";

// The worker's own line, without what stands in front of it; none when it has nothing to say.
struct DownloadFault {
	const char *name;
	const char *fault;
	HttpAnswer answer;
	const char *logged = "";
};

void PrintTo(const DownloadFault &row, std::ostream *stream)
{
	*stream << row.fault;
}

class DownloadFaults : public UpdateTest
{
protected:
	// Only what is meant to hang is cut short.
	static Fields arguments(const DownloadFault &row)
	{
		return row.logged == std::string_view(timed_out)
			       ? Fields{int32_field("timeout", seven_tenths)}
			       : Fields{};
	}

	void expect_failure(const Reply &reply, const std::string &logged)
	{
		const std::string line = "Unable to download firmware: " + logged;
		// A time-out is the daemon's own line, all others are the worker's.
		const bool by_daemon = logged == timed_out;
		expect_outcome(reply,
			       {.code = 2, .text = by_daemon ? line + "\n" : download_failed});
		EXPECT_EQ(syslog.texts().empty(), logged.empty());
		EXPECT_TRUE(logged.empty() || syslog.texts().at(0) == line) << syslog.texts().at(0);
		EXPECT_EQ(daemon().state_name(), "NONE");
		expect_not_installed();
	}

	static void record_failure(const std::string &fault, const std::string &logged)
	{
		const std::string line = "\"Unable to download firmware: " + logged + "\"";
		record({.fault = fault,
			.caller = "`update`: code 2, " + (logged == timed_out ? line
							  : logged.empty()
								  ? std::string("nothing logged")
								  : "log: " + line)});
	}
};

class BadDownload : public DownloadFaults, public testing::WithParamInterface<DownloadFault>
{
};

const std::string body(5000, 'f');
constexpr const char *error_status = "HTTP response code said error";
constexpr const char *no_data = "Failure when receiving data from the peer";
constexpr const char *empty_file = "empty file";

const std::vector<DownloadFault> bad_downloads = {
	{"silent", "The server accepts the connection and says nothing.", silence(), timed_out},
	{"stalls_after_the_headers", "The server stalls after the headers.", answer(body).hold(),
	 timed_out},
	{"stalls_in_the_middle", "The server stalls in the middle of the firmware.",
	 answer(body).announce(2 * body.size()).keep_open(), timed_out},
	{"one_byte_a_second", "The firmware comes byte by byte, and too slowly.",
	 answer(body).in_pieces(body.size()).every(std::chrono::milliseconds(50)), timed_out},
	{"reset_at_once", "The server resets the connection when it has read the request.",
	 reset_at_once(), no_data},
	{"reset_in_the_middle", "The server resets the connection in the middle of the firmware.",
	 answer(body).reset_after_bytes(1000), no_data},
	{"shorter_than_announced", "The firmware is shorter than announced.",
	 answer(body).announce(20000), "Transferred a partial file"},
	{"cut_in_a_chunk", "The connection ends in the middle of a chunk.",
	 raw("200 OK\r\nTransfer-Encoding: chunked", "64\r\nhalf"), "Transferred a partial file"},
	{"no_length", "The firmware comes without a length, until the connection closes.",
	 answer(body).without_length()},
	{"one_chunk", "The firmware comes as one chunk.", answer(body).in_chunks()},
	{"chunks", "The firmware comes in chunks.", answer(body).in_pieces(3).in_chunks()},
	{"no_http", "The answer is not HTTP.", raw_answer("\1\2\3\4 nonsense\r\n\r\n"),
	 "Unsupported protocol"},
	{"status_204", "Status 204, which has no body.", raw("204 No Content"), empty_file},
	{"status_204_with_body", "Status 204 with a body all the same.", answer(204, body),
	 empty_file},
	{"status_304", "Status 304, which has no body.", raw("304 Not Modified"), empty_file},
	{"status_304_with_body", "Status 304 with a body all the same.", answer(304, body),
	 empty_file},
	{"status_403_with_page", "Status 403 with an error page.", answer(403, "no"), error_status},
	{"status_404", "Status 404 without a body.", answer(404, ""), error_status},
	{"status_404_with_page", "Status 404 with an error page.", answer(404, "not here"),
	 error_status},
	{"status_500", "Status 500 without a body.", answer(500, ""), error_status},
	{"status_500_with_page", "Status 500 with an error page.", answer(500, "sorry"),
	 error_status},
	{"redirect_to_a_file", "A redirect to another scheme.", redirect("file:///etc/passwd"),
	 "Unsupported protocol"},
	{"redirect_to_nowhere", "A redirect to a path that does not exist.", redirect("/nowhere"),
	 error_status},
	{"empty", "An empty answer.", answer(""), empty_file},
	{"empty_in_chunks", "An empty answer in chunks.", answer("").in_chunks(), empty_file},
};

TEST_P(BadDownload, FailsTheUpdateAndLeavesNothing)
{
	const DownloadFault &row = GetParam();
	record_failure(row.fault, row.logged);
	offer(row.answer);
	start_daemon();
	expect_failure(daemon().update(arguments(row)), row.logged);
}

INSTANTIATE_TEST_SUITE_P(Matrix, BadDownload, testing::ValuesIn(bad_downloads), case_name);

TEST_F(DownloadFaults, RefusedConnectionFailsTheUpdate)
{
	record_failure("The server refuses the connection.", "Couldn't connect to server");
	offer({.url = "http://127.0.0.1:" + std::to_string(unused_port()) + "/firmware.bin"});
	start_daemon();
	expect_failure(daemon().update(), "Couldn't connect to server");
}

// Followed until the time is over, or 30 times: that is libcurl's own choice.
TEST_F(DownloadFaults, RedirectInALoopFailsTheUpdate)
{
	record({.fault = "A redirect in a loop.",
		.caller = "`update`: code 2, after the time-out or 30 redirects"});
	offer(redirect(firmware));
	start_daemon();
	EXPECT_EQ(code_of(daemon().update({int32_field("timeout", seven_tenths)})), 2);
	expect_not_installed();
}

TEST_F(DownloadFaults, LongerThanAnnouncedIsABadImage)
{
	record({.fault = "The firmware is longer than announced.",
		.caller = "`update`: code 3, \"Bad Image checksum [-7]\""});
	const std::string image = good_image();
	offer(answer(image).announce(image.size() - 1));
	start_daemon();
	expect_outcome(daemon().update(), {.code = 3, .text = "Bad Image checksum [-7]"});
	expect_not_installed();
}

TEST_F(DownloadFaults, RedirectIsFollowed)
{
	record({.fault = "A redirect.",
		.caller = "`update`: code 0, installed",
		.left = "the installed image"});
	server.on("/elsewhere.bin", answer(good_image()));
	offer(redirect("/elsewhere.bin"));
	start_daemon();
	expect_outcome(daemon().update(), {});
	expect_installed();
}

} // namespace
