// SPDX-License-Identifier: ISC
// The HTTP transfer. Most of libcurl's failures are brought about by a server; for those that no
// server can bring about this program stands between the daemon and libcurl.
#include <algorithm>
#include <gmock/gmock.h>

#include "discovery/request_fixture.h"
#include "support/libcurl.h"

using testing::IsEmpty;

namespace
{

struct TransferOption {
	CURLoption option;
	long number = 0; // of options that take a number, else 0
	bool operator==(const TransferOption &) const = default;
};

// Unless told otherwise it passes everything on to libcurl.
struct TransferSpy {
	std::vector<TransferOption> options = {}; // in the order in which they were set
	int open_handles = 0;	     // those that were given a URL; libcurl has others of its own
	bool no_handle = false;	     // curl_easy_init fails
	CURLcode outcome = CURLE_OK; // if not that, the transfer's, which does not take place
};
TransferSpy spy;

} // namespace

extern "C" {

CURL *curl_easy_init()
{
	if (spy.no_handle) {
		return nullptr;
	}
	return libcurls<CURL *(*)()>("curl_easy_init")();
}

CURLcode curl_easy_setopt(CURL *curl, CURLoption option, ...)
{
	va_list arguments;
	va_start(arguments, option);
	const OptionValue value = take_value(option, arguments);
	va_end(arguments);
	spy.options.push_back({option, value.number});
	spy.open_handles += option == CURLOPT_URL ? 1 : 0;
	return pass_on(curl, option, value);
}

CURLcode curl_easy_perform(CURL *curl)
{
	if (spy.outcome != CURLE_OK) {
		return spy.outcome;
	}
	return libcurls<CURLcode (*)(CURL *)>("curl_easy_perform")(curl);
}

void curl_easy_cleanup(CURL *curl)
{
	spy.open_handles--;
	libcurls<void (*)(CURL *)>("curl_easy_cleanup")(curl);
}

} // extern "C"

namespace
{

class ManifestRequest : public RequestFixture
{
protected:
	void SetUp() override
	{
		RequestFixture::SetUp();
		spy = {};
	}
	void TearDown() override
	{
		EXPECT_EQ(spy.open_handles, 0);
		spy = {};
		RequestFixture::TearDown();
	}
};

} // namespace

TEST_F(ManifestRequest, SetsSevenOptionsInTheirOrder)
{
	EXPECT_EQ(fetch(answer(xml)), 0);
	const std::vector<TransferOption> expected = {
		{CURLOPT_URL},
		{CURLOPT_WRITEDATA},
		{CURLOPT_WRITEFUNCTION},
		{CURLOPT_ERRORBUFFER},
		{CURLOPT_CONNECTTIMEOUT, 10},
		{CURLOPT_TIMEOUT, 10},
		{CURLOPT_FOLLOWLOCATION, 1},
	};
	EXPECT_EQ(spy.options, expected);
}

TEST_F(ManifestRequest, WithoutAHandleFails)
{
	spy.no_handle = true;
	EXPECT_EQ(fetch(answer(xml)), -1);
	EXPECT_EQ(update_context.state, UpdateState::XML_CONNECT);
	EXPECT_EQ(manifest_buffer.document, nullptr);
	EXPECT_THAT(logged(), testing::ElementsAre("Error, couldn't init curl"));
	EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(ManifestRequest, FailureIsEarlyOrWhileReceivingByItsCode)
{
	const std::vector<int> early = {1, 3, 6, 7, 9, 22, 28};
	for (int code = 1; code < CURL_LAST; code++) {
		SCOPED_TRACE(code);
		spy.outcome = static_cast<CURLcode>(code);
		syslog.clear();
		EXPECT_EQ(fetch("http://a/?b"), -1);
		const bool is_early = std::find(early.begin(), early.end(), code) != early.end();
		EXPECT_EQ(update_context.state,
			  is_early ? UpdateState::XML_CONNECT : UpdateState::XML_GET);
		EXPECT_THAT(logged(), testing::ElementsAre("Error on geting update info via CURL "
							   "[] (url = 'http://a/?b')"));
	}
}

TEST_F(ManifestRequest, FailureIsLoggedInTheWordsOfLibcurl)
{
	const std::string port = std::to_string(unused_port());
	EXPECT_EQ(fetch("http://127.0.0.1:" + port), -1);
	EXPECT_TRUE(syslog.contains("CURL [Failed to connect to 127.0.0.1 port " + port));
	EXPECT_EQ(fetch(answer(std::string(1025, ' '))), -1);
	EXPECT_TRUE(syslog.contains("CURL [Failure writing output to destination] (url = '"));
}
