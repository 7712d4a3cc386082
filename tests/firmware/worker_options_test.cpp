// SPDX-License-Identifier: ISC
// What the worker asks of libcurl: this program stands between the two.
#include "worker_fixture.h"

#include <filesystem>
#include <fstream>

#include "support/libcurl.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

using Lines = std::vector<std::string>;

constexpr char list_path[] = "/tmp/options";

// Whether transfers are written down instead of made. The worker inherits it.
bool listing;

// A value that a line of the list can show.
std::string shown(CURLoption option, const void *pointer)
{
	if (option == CURLOPT_URL) {
		return static_cast<const char *>(pointer);
	}
	if (option == CURLOPT_XFERINFOFUNCTION) {
		return pointer == reinterpret_cast<const void *>(report_progress) ? "ours" : "?";
	}
	if (option == CURLOPT_XFERINFODATA) {
		const auto &tracker = *static_cast<const ProgressTracker *>(pointer);
		return tracker.last_second == 0 && tracker.descriptor > 2 ? "fresh" : "?";
	}
	return pointer != nullptr ? "set" : "null";
}

} // namespace

extern "C" {

CURLcode curl_easy_setopt(CURL *curl, CURLoption option, ...)
{
	va_list arguments;
	va_start(arguments, option);
	const OptionValue value = take_value(option, arguments);
	va_end(arguments);
	if (listing) {
		std::ofstream(list_path, std::ios::app)
			<< curl_easy_option_by_id(option)->name << ' '
			<< (value.is_number ? std::to_string(value.number)
					    : shown(option, value.pointer))
			<< '\n';
	}
	return pass_on(curl, option, value);
}

CURLcode curl_easy_perform(CURL *curl)
{
	return listing ? CURLE_OK : libcurls<CURLcode (*)(CURL *)>("curl_easy_perform")(curl);
}

} // extern "C"

namespace
{

// The options of one transfer, in the order in which they were set.
Lines options_of(const std::string &url, std::int32_t timeout)
{
	listing = true;
	Worker worker(url, timeout);
	listing = false;
	worker.records();
	EXPECT_EQ(worker.end(), 0);
	Lines lines;
	std::ifstream list(list_path);
	for (std::string line; std::getline(list, line);) {
		lines.push_back(line);
	}
	std::filesystem::remove(list_path);
	return lines;
}

} // namespace

TEST_F(WorkerTest, HandsTheAddressOverAsItIsAndSetsNothingThatIsNotNeeded)
{
	const std::string url = "HTTP://User@Host.example:80/a b/%7e?x=1#y";
	EXPECT_EQ(options_of(url, 30),
		  (Lines{"URL " + url, "WRITEDATA set", "CONNECTTIMEOUT 10", "TIMEOUT 30",
			 "FAILONERROR 1", "FOLLOWLOCATION 1", "XFERINFOFUNCTION ours",
			 "XFERINFODATA fresh", "NOPROGRESS 0"}));
}

TEST_F(WorkerTest, ConnectionHasTenSecondsOfTheTimeoutAtMost)
{
	const struct {
		std::int32_t timeout;
		const char *connect;
		const char *whole;
	} cases[] = {
		{1, "CONNECTTIMEOUT 1", "TIMEOUT 1"},
		{5, "CONNECTTIMEOUT 5", "TIMEOUT 5"},
		{9, "CONNECTTIMEOUT 9", "TIMEOUT 9"},
		{10, "CONNECTTIMEOUT 10", "TIMEOUT 10"},
		{11, "CONNECTTIMEOUT 10", "TIMEOUT 11"},
		{INT32_MAX, "CONNECTTIMEOUT 10", "TIMEOUT 2147483647"},
	};
	for (const auto &row : cases) {
		SCOPED_TRACE(row.timeout);
		const Lines options = options_of("http://host/", row.timeout);
		ASSERT_EQ(options.size(), 9u);
		EXPECT_EQ(options[2], row.connect);
		EXPECT_EQ(options[3], row.whole);
	}
}

TEST_F(WorkerTest, TimeoutThatIsNotPositiveSetsNoLimit)
{
	for (const std::int32_t timeout : {0, -1, INT32_MIN}) {
		SCOPED_TRACE(timeout);
		EXPECT_EQ(options_of("http://host/", timeout),
			  (Lines{"URL http://host/", "WRITEDATA set", "FAILONERROR 1",
				 "FOLLOWLOCATION 1", "XFERINFOFUNCTION ours", "XFERINFODATA fresh",
				 "NOPROGRESS 0"}));
	}
}
