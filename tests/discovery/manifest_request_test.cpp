// SPDX-License-Identifier: ISC
// The HTTP transfer. Most of libcurl's failures are brought about by a server; for those that no
// server can bring about this program stands between the daemon and libcurl.
#include <algorithm>
#include <gmock/gmock.h>

#include "discovery/request_fixture.h"
#include "support/libcurl.h"

using testing::EndsWith;
using testing::IsEmpty;
using testing::StartsWith;

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
	int open_handles = 0;	       // those that were given a URL; libcurl has others of its own
	bool no_handle = false;	       // curl_easy_init fails
	CURLcode outcome = CURLE_OK;   // if not that, the transfer's, which does not take place
	long milliseconds_allowed = 0; // if not 0, instead of the seconds of CURLOPT_TIMEOUT
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
	if (option == CURLOPT_TIMEOUT && spy.milliseconds_allowed != 0) {
		return pass_on(curl, CURLOPT_TIMEOUT_MS, {true, spy.milliseconds_allowed, nullptr});
	}
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
	void expect_failure(const std::string &url, UpdateState state)
	{
		SCOPED_TRACE(url);
		syslog.clear();
		EXPECT_EQ(fetch(url), -1);
		EXPECT_EQ(update_context.state, state);
		EXPECT_EQ(manifest_buffer.document, nullptr);
		const std::vector<std::string> texts = logged();
		ASSERT_EQ(texts.size(), 1u);
		EXPECT_THAT(texts[0], StartsWith("Error on geting update info via CURL ["));
		EXPECT_THAT(texts[0], EndsWith("] (url = '" + url + "')"));
	}
	void expect_failure(const HttpAnswer &what, UpdateState state)
	{
		server.on("/update.xml", what);
		expect_failure(server.url("/update.xml"), state);
	}
};

struct AnswerCase {
	const char *what;
	HttpAnswer answer;
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

TEST_F(ManifestRequest, FailsEarlyWhenNobodyAnswers)
{
	const std::string nobody = "http://127.0.0.1:" + std::to_string(unused_port()) + "/a?b=c";
	for (const std::string &url :
	     {nobody, std::string("http://nobody.example.com/"), std::string("unknown://a/"),
	      std::string("http://127.0.0.1:123456/"), std::string("http://127.0.0.1/a b")}) {
		expect_failure(url, UpdateState::XML_CONNECT);
	}
	expect_failure(raw_answer("no HTTP at all\r\n\r\n"), UpdateState::XML_CONNECT);
	expect_failure(redirect(nobody), UpdateState::XML_CONNECT);
	expect_failure(redirect("file:///etc/passwd"), UpdateState::XML_CONNECT);
}

TEST_F(ManifestRequest, FailureIsLoggedInTheWordsOfLibcurl)
{
	const std::string port = std::to_string(unused_port());
	EXPECT_EQ(fetch("http://127.0.0.1:" + port), -1);
	EXPECT_TRUE(syslog.contains("CURL [Failed to connect to 127.0.0.1 port " + port));
	EXPECT_EQ(fetch(answer(std::string(1025, ' '))), -1);
	EXPECT_TRUE(syslog.contains("CURL [Failure writing output to destination] (url = '"));
}

TEST_F(ManifestRequest, TimeOutCountsAsEarlyHoweverMuchCame)
{
	spy.milliseconds_allowed = 1100; // a libcurl without threads refuses less than a second
	expect_failure(silence(), UpdateState::XML_CONNECT);
	expect_failure(answer(xml).announce(5000).keep_open(), UpdateState::XML_CONNECT);
	EXPECT_EQ(kept(), xml);
}

TEST_F(ManifestRequest, FailsWhileReceivingWhenTheAnswerBreaksOff)
{
	const std::vector<AnswerCase> cases = {
		{"connection reset", reset_at_once()},
		{"reset in the middle", answer(xml).reset_after_bytes(10)},
		{"less than announced", answer(xml).announce(xml.size() + 1)},
		{"chunks without an end",
		 raw_answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabc")},
		{"chunks of no size",
		 raw_answer("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nabc")},
		{"1025 bytes", answer(std::string(1025, ' '))},
		{"1025 bytes in a chunk", answer(std::string(1025, ' ')).in_chunks()},
		{"1025 bytes of any length", answer(std::string(1025, ' ')).without_length()},
		{"an error page of 1025 bytes", answer(404, std::string(1025, ' '))},
		{"much more", answer(std::string(100000, ' '))},
	};
	for (const AnswerCase &each : cases) {
		SCOPED_TRACE(each.what);
		expect_failure(each.answer, UpdateState::XML_GET);
	}
	expect_failure("file:///nothing.xml", UpdateState::XML_GET);
}

TEST_F(ManifestRequest, LongUrlIsLoggedAsFarAsItFits)
{
	const std::string url = "unknown://" + std::string(600, 'u');
	EXPECT_EQ(fetch(url), -1);
	const std::vector<std::string> texts = logged();
	ASSERT_EQ(texts.size(), 1u);
	EXPECT_EQ(texts[0].size(), 511u);
	EXPECT_THAT(texts[0], EndsWith("uuu"));
}
