// SPDX-License-Identifier: ISC
// load_callers CALLERS ROUNDS: so many callers at once while an update runs, each calling state,
// check and test ROUNDS times; before that one caller alone, for comparison. Prints how long they
// waited; fails when a call was not answered as
// it should be or the update came to harm. bench/load runs it on the simulated router.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "router.h"
#include "support/callers.h"

namespace
{

using namespace bench;
using std::chrono::microseconds;
using std::chrono::steady_clock;

constexpr std::size_t image_size = std::size_t{8} * 1024 * 1024;
constexpr const char *good_file = "/var/image.bin";
constexpr const char *installed_file = "/var/installed.bin";
constexpr std::size_t rounds_alone = 20;
constexpr int update_timeout = 3600; // seconds

double milliseconds_of(microseconds time)
{
	return static_cast<double>(time.count()) / 1000;
}

// Of sorted times: the one that `percent` of all do not exceed.
double percentile(const std::vector<microseconds> &times, std::size_t percent)
{
	const std::size_t rank = (times.size() * percent + 99) / 100;
	return milliseconds_of(times[std::max<std::size_t>(rank, 1) - 1]);
}

void print_times(const std::vector<TimedReply> &replies, const std::string &method)
{
	std::vector<microseconds> times;
	for (const TimedReply &timed : replies) {
		if (method == "all" || timed.method == method) {
			times.push_back(timed.took);
		}
	}
	std::sort(times.begin(), times.end());
	std::printf("%-6s %7zu %9.1f %9.1f %9.1f %9.1f %9.1f\n", method.c_str(), times.size(),
		    percentile(times, 50), percentile(times, 90), percentile(times, 95),
		    percentile(times, 99), milliseconds_of(times.back()));
}

std::vector<TimedReply> measure(const char *meanwhile, std::size_t callers,
				const std::vector<BusCall> &calls,
				const std::function<void()> &answered)
{
	const auto start = steady_clock::now();
	std::vector<TimedReply> replies = call_at_once(callers, "fwupdate", calls, answered);
	const std::chrono::duration<double> took = steady_clock::now() - start;
	std::printf("%zu at once, %zu calls in %.1f s, %s\n", callers, replies.size(), took.count(),
		    meanwhile);
	std::printf("%-6s %7s %9s %9s %9s %9s %9s\n", "", "calls", "p50 ms", "p90 ms", "p95 ms",
		    "p99 ms", "longest");
	for (const char *method : {"state", "check", "test", "all"}) {
		print_times(replies, method);
	}
	std::printf("\n");
	std::fflush(stdout);
	return replies;
}

void check_replies(const std::vector<TimedReply> &replies, std::size_t expected)
{
	std::size_t bad = 0;
	for (const TimedReply &timed : replies) {
		const std::string code = code_of(timed.reply);
		const bool good = timed.reply.status == 0 && timed.reply.messages == 1 &&
				  code == (timed.method == "state" ? "" : "0");
		if (!good) {
			std::fprintf(stderr, "load: %s: status %d, error '%s'\n",
				     timed.method.c_str(), timed.reply.status, code.c_str());
			bad++;
		}
	}
	require(bad == 0 && replies.size() == expected,
		std::to_string(replies.size() - bad) + " of " + std::to_string(expected) +
			" calls were answered as they should be");
}

std::vector<BusCall> calls_of(std::size_t rounds)
{
	std::vector<BusCall> calls;
	for (std::size_t i = 0; i < rounds; i++) {
		calls.insert(calls.end(),
			     {{"state"}, {"check"}, {"test", {string_field("file", good_file)}}});
	}
	return calls;
}

void run(std::size_t callers, std::size_t rounds)
{
	Router router;
	const std::string image = router.good_image(image_size);
	router.files.write(good_file, router.good_image(4096));
	router.files.install_tool("/sbin/sysupgrade", std::string("mv ") + downloaded_image + " " +
							      installed_file + "\n");
	router.offer("190000000");
	const std::vector<BusCall> alone = calls_of(rounds_alone);
	check_replies(measure("nothing else to do", 1, alone, [] {}), alone.size());

	const std::vector<BusCall> calls = calls_of(rounds);
	// A piece for each answer and one that is kept back: the download lasts as long as the
	// callers do.
	const std::size_t expected = callers * calls.size();
	router.server.on(firmware_target, answer(image).in_pieces(expected + 1).hold());
	PendingCall update = router.daemon.start_update({int32_field("timeout", update_timeout)});
	require(router.server.wait_for_requests(firmware_target, 1), "no download was begun");

	const std::vector<TimedReply> replies =
		measure("while an update is downloaded", callers, calls,
			[&router] { router.server.release(); });
	check_replies(replies, expected);
	require(!update.finished(), "the update ended before the calls did");
	router.server.release();
	const Reply reply = update.wait();
	require(code_of(reply) == "0", "the update ended with error '" + code_of(reply) + "'");
	require(wait_until_exists(installed_file), "the installer was not started");
	require(wait_until_gone(downloaded_image), "the image was not taken over");
	require(read_file(installed_file) == image, "the installed image is another one");
	std::printf("All calls were answered; the update was installed unharmed.\n");
}

} // namespace

int main(int argc, char **argv)
{
	const long callers = argc == 3 ? std::atol(argv[1]) : 0;
	const long rounds = argc == 3 ? std::atol(argv[2]) : 0;
	if (callers < 1 || rounds < 1) {
		std::fprintf(stderr, "Usage: load_callers CALLERS ROUNDS\n");
		return 2;
	}
	try {
		run(static_cast<std::size_t>(callers), static_cast<std::size_t>(rounds));
		return 0;
	} catch (const std::exception &error) {
		std::fprintf(stderr, "load: %s\n", error.what());
		return 1;
	}
}
