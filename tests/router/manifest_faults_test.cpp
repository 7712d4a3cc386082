// SPDX-License-Identifier: ISC
// What an update server can do wrong when it is asked for the manifest, row by row of
// docs/reliability.md. What a test leaves behind is compared by its fixture.
#include "router/server_fixture.h"
#include "support/fake_clock.h"
#include "support/fault_row.h"

using namespace router_test;

namespace
{

constexpr const char *no_url =
	"Error parsing XML recived from update server, can't find 'url' section";
constexpr const char *empty_buildtime =
	"Error parsing XML recived from update server, can't get 'buildtime' value";
constexpr const char *empty_url =
	"Error parsing XML recived from update server, can't get 'url' value";
constexpr const char *no_transfer = "Error on geting update info via CURL [";

// A daemon that waits 10 seconds for its server waits one or two instead.
constexpr std::int64_t hurry = 20;

struct ManifestFault {
	const char *name;
	const char *fault;
	HttpAnswer answer;
	const char *state;
	const char *logged;
	std::int64_t speed = 1;
};

struct HarmlessFault {
	const char *name;
	const char *fault;
	HttpAnswer answer;
	std::string version = "2.0";
};

void PrintTo(const ManifestFault &row, std::ostream *stream)
{
	*stream << row.fault;
}

void PrintTo(const HarmlessFault &row, std::ostream *stream)
{
	*stream << row.fault;
}

class ManifestFaults : public RouterTest
{
protected:
	Reply check(const HttpAnswer &what)
	{
		server.on("/update.xml", what);
		return daemon().check();
	}

	// The daemon is none the worse for it.
	void expect_next_check_succeeds()
	{
		const Fields fields = check(answer(xml)).fields;
		EXPECT_EQ(text_of(fields, "error_code"), "0");
		EXPECT_EQ(text_of(fields, "version"), "2.0");
		EXPECT_EQ(text_of(fields, "need_update"), "1");
	}

	void expect_failure(const Reply &reply, const char *state, const char *logged)
	{
		EXPECT_EQ(reply.status, 0);
		EXPECT_EQ(text_of(reply.fields, "error_code"), "1");
		EXPECT_EQ(text_of(reply.fields, "version"), "");
		EXPECT_EQ(daemon().state_name(), state);
		EXPECT_EQ(syslog.lines().size(), 1u);
		EXPECT_TRUE(syslog.contains(logged)) << syslog.texts().at(0);
		// The XML library has much to complain of.
		EXPECT_EQ(daemon().process().errors(), "");
	}

	static void record_failure(const std::string &fault, const char *state, const char *logged)
	{
		std::string line = logged;
		line = line.substr(0, line.find(" ["));
		record({.fault = fault,
			.caller = std::string("`check`: code 1; `state`: ") + state + ", \"" +
				  line + "\""});
	}
};

class BadManifest : public ManifestFaults, public testing::WithParamInterface<ManifestFault>
{
};

class OddManifest : public ManifestFaults, public testing::WithParamInterface<HarmlessFault>
{
};

HttpAnswer with_declaration(const std::string &rest)
{
	return answer("<?xml version=\"1.0\"?>" + rest);
}

std::string repeated(std::string_view text, std::size_t count)
{
	std::string all;
	while (count-- > 0) {
		all += text;
	}
	return all;
}

std::string padded_to(std::size_t size, std::string text)
{
	text.resize(size, '\n');
	return text;
}

const std::string offer_text = "<buildtime>190000000</buildtime><url>http://a/</url>"
			       "<version>2.0</version>";

const std::vector<ManifestFault> bad_manifests = {
	{"silent", "The server accepts the connection and says nothing for ten seconds.", silence(),
	 "XML_CONNECT", no_transfer, hurry},
	{"stalls_after_the_headers", "The server stalls after the headers.", answer(xml).hold(),
	 "XML_CONNECT", no_transfer, hurry},
	{"stalls_in_the_middle", "The server stalls in the middle of the manifest.",
	 raw("200 OK\r\nContent-Length: " + std::to_string(xml.size()), xml.substr(0, 50))
		 .keep_open(),
	 "XML_CONNECT", no_transfer, hurry},
	{"one_byte_a_second", "The manifest comes at one byte a second.",
	 answer(xml).in_pieces(xml.size()).every(std::chrono::milliseconds(1000 / hurry)),
	 "XML_CONNECT", no_transfer, hurry},
	{"reset_at_once", "The server resets the connection when it has read the request.",
	 reset_at_once(), "XML_GET", no_transfer},
	{"reset_in_the_middle", "The server resets the connection in the middle of the manifest.",
	 answer(xml).reset_after_bytes(20), "XML_GET", no_transfer},
	{"shorter_than_announced", "The manifest is shorter than announced.",
	 answer(xml).announce(4000), "XML_GET", no_transfer},
	{"broken_chunks", "The chunks have no lengths.",
	 raw("200 OK\r\nTransfer-Encoding: chunked", "no number\r\n"), "XML_GET", no_transfer},
	{"no_http", "The answer is not HTTP.", raw_answer("220 ready\r\n\r\n"), "XML_CONNECT",
	 no_transfer},
	{"status_204", "Status 204, which has no body.", raw("204 No Content", ""), "XML_PARSE",
	 no_buildtime},
	{"status_204_with_body", "Status 204 with a body all the same.", answer(204, xml),
	 "XML_PARSE", no_buildtime},
	{"status_304", "Status 304, which has no body.", raw("304 Not Modified", ""), "XML_PARSE",
	 no_buildtime},
	{"status_304_with_body", "Status 304 with a body all the same.", answer(304, xml),
	 "XML_PARSE", no_buildtime},
	{"status_404", "Status 404 without a body.", answer(404, ""), "XML_PARSE", no_buildtime},
	{"status_404_with_page", "Status 404 with an error page.",
	 answer(404, "<html><body>gone</body></html>"), "XML_PARSE", no_buildtime},
	{"status_500", "Status 500 without a body.", answer(500, ""), "XML_PARSE", no_buildtime},
	{"status_500_with_page", "Status 500 with an error page.", answer(500, "Sorry."),
	 "XML_PARSE", no_buildtime},
	{"redirect_to_a_file", "A redirect to another scheme.", redirect("file:///etc/passwd"),
	 "XML_CONNECT", no_transfer},
	{"redirect_to_nowhere", "A redirect to a path that does not exist.", redirect("/nowhere"),
	 "XML_PARSE", no_buildtime},
	{"empty", "An empty answer, before any other.", answer(""), "XML_PARSE", no_buildtime},
	{"two_pieces", "The manifest comes in two pieces.", answer(xml).cut_at({xml.size() - 20}),
	 "XML_PARSE", no_buildtime},
	{"two_chunks", "The manifest comes in two chunks.",
	 answer(xml).in_chunks().cut_at({xml.size() - 20}), "XML_PARSE", no_buildtime},
	{"byte_by_byte", "The manifest comes byte by byte.",
	 answer(xml.substr(0, 60)).in_pieces(60), "XML_PARSE", no_buildtime},
	{"of_1025_bytes", "A manifest of 1025 bytes.", answer(padded_to(1025, xml)), "XML_GET",
	 no_transfer},
	{"of_1025_bytes_in_a_chunk", "A manifest of 1025 bytes in one chunk.",
	 answer(padded_to(1025, xml)).in_chunks(), "XML_GET", no_transfer},
	{"whole_firmware", "A firmware in the place of the manifest.", answer(noise(300000)),
	 "XML_GET", no_transfer},
	{"text", "Text that is not XML.", answer("Hello"), "XML_PARSE", no_buildtime},
	{"bytes", "Bytes that are no text.", answer(noise(1000)), "XML_PARSE", no_buildtime},
	{"half", "Half of a manifest.", with_declaration("<update>" + offer_text), "XML_PARSE",
	 no_buildtime},
	{"two_documents", "Two outermost elements.", answer("<!-- note -->" + xml), "XML_PARSE",
	 no_buildtime},
	{"zeros", "1024 zero bytes.", answer(std::string(1024, '\0')), "XML_PARSE", no_buildtime},
	{"zero_in_front", "A NUL in front of the manifest.", answer(std::string(1, '\0') + xml),
	 "XML_PARSE", no_buildtime},
	{"zero_in_the_middle", "A NUL in the middle of the manifest.",
	 answer(std::string(xml).insert(xml.find("<url>"), 1, '\0')), "XML_PARSE", no_buildtime},
	{"fe_ff_in_front", "The bytes FE FF in front of the manifest.", answer("\376\377" + xml),
	 "XML_PARSE", no_buildtime},
	{"nested", "As many nested elements as 1024 bytes hold.",
	 answer(repeated("<a>", 146) + repeated("</a>", 146)), "XML_PARSE", no_buildtime},
	{"nested_without_end", "Nested elements that never end.", answer(repeated("<a>", 341)),
	 "XML_PARSE", no_buildtime},
	{"a_thousand_nested", "A thousand nested elements.",
	 answer(repeated("<a>", 1000) + repeated("</a>", 1000)), "XML_GET", no_transfer},
	{"buildtime_only", "A manifest without an address.",
	 with_declaration("<u><buildtime>190000000</buildtime></u>"), "XML_PARSE", no_url},
	{"buildtime_without_text", "An element without a text: the build time.",
	 with_declaration("<u><buildtime/><url>http://a/</url></u>"), "XML_PARSE", empty_buildtime},
	{"url_without_text", "An element without a text: the address.",
	 with_declaration("<u><buildtime>190000000</buildtime><url></url></u>"), "XML_PARSE",
	 empty_url},
	{"cdata", "The build time as CDATA.",
	 with_declaration("<u><buildtime><![CDATA[190000000]]></buildtime>"
			  "<url>http://a/</url></u>"),
	 "XML_PARSE", empty_buildtime},
	{"comment_as_text", "A comment in front of the build time's number.",
	 with_declaration("<u><buildtime><!-- n -->190000000</buildtime>"
			  "<url>http://a/</url></u>"),
	 "XML_PARSE", empty_buildtime},
	{"unknown_entity", "An entity that nobody defined.",
	 with_declaration("<u><buildtime>&nothing;</buildtime></u>"), "XML_PARSE", no_buildtime},
};

TEST_P(BadManifest, FailsTheCheckAndNothingElse)
{
	const ManifestFault &row = GetParam();
	record_failure(row.fault, row.state, row.logged);
	const FakeClock clock(row.speed);
	start_daemon({"--debug"}, row.speed == 1 ? std::vector<std::string>() : clock.settings());
	expect_failure(check(row.answer), row.state, row.logged);
	expect_next_check_succeeds();
}

INSTANTIATE_TEST_SUITE_P(Matrix, BadManifest, testing::ValuesIn(bad_manifests), case_name);

const std::vector<HarmlessFault> odd_manifests = {
	{"longer_than_announced", "The manifest is longer than announced.",
	 answer(xml + "<rest/>").announce(xml.size())},
	{"no_length", "The manifest comes without a length, until the connection closes.",
	 answer(xml).without_length()},
	{"one_chunk", "The manifest comes as one chunk.", answer(xml).in_chunks()},
	{"of_1024_bytes", "A manifest of 1024 bytes.", answer(padded_to(1024, xml))},
	{"of_1024_bytes_in_a_chunk", "A manifest of 1024 bytes in one chunk.",
	 answer(padded_to(1024, xml)).in_chunks()},
	{"status_404_with_manifest", "Status 404 with a manifest.", answer(404, xml)},
	{"status_500_with_manifest", "Status 500 with a manifest.", answer(500, xml)},
	{"redirect", "A redirect.", redirect("/other.xml")},
	{"behind_another_piece", "The manifest comes as the second of two pieces.",
	 answer("<a>" + xml).cut_at({3})},
	{"behind_1024_bytes", "The manifest comes behind a piece of 1024 bytes.",
	 answer(std::string(1024, 'r') + xml).cut_at({1024})},
	{"without_a_declaration", "A manifest without an XML declaration.",
	 answer(xml.substr(xml.find("<update>")))},
	{"utf8_mark", "A UTF-8 mark in front of the manifest.", answer("\357\273\277" + xml)},
	{"zero_behind", "A NUL and more behind the manifest.",
	 answer(xml + std::string(1, '\0') + "<rest>")},
	{"doubled_elements", "Doubled elements: the first of a name counts.",
	 with_declaration("<u>" + offer_text +
			  "<buildtime>1</buildtime><url>u</url><version>1.0</version></u>")},
	{"entities", "Entities in a text.",
	 with_declaration("<u>" + offer_text.substr(0, offer_text.find("<version>")) +
			  "<version>&lt;2&amp;0&gt;</version></u>"),
	 "<2&0>"},
	{"comments", "Comments between the elements.",
	 with_declaration("<u><!-- a -->" + offer_text + "<!-- b --></u>")},
	{"optional_without_text", "An element without a text: one that may be missing.",
	 with_declaration("<u>" + offer_text + "<release_notes/></u>")},
};

TEST_P(OddManifest, IsTakenAsItIs)
{
	const HarmlessFault &row = GetParam();
	record({.fault = row.fault, .caller = "`check`: code 0, the offer"});
	server.on("/other.xml", answer(xml));
	start_daemon();
	const Fields fields = check(row.answer).fields;
	EXPECT_EQ(text_of(fields, "error_code"), "0");
	EXPECT_EQ(text_of(fields, "version"), row.version);
	EXPECT_EQ(text_of(fields, "buildtime"), "190000000");
	EXPECT_EQ(text_of(fields, "need_update"), "1");
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	EXPECT_TRUE(syslog.lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Matrix, OddManifest, testing::ValuesIn(odd_manifests), case_name);

TEST_F(ManifestFaults, RefusedConnectionFailsTheCheck)
{
	record_failure("The server refuses the connection.", "XML_CONNECT", no_transfer);
	files.set_manifest_url("http://127.0.0.1:" + std::to_string(unused_port()) + "/update.xml");
	start_daemon();
	expect_failure(daemon().check(), "XML_CONNECT", no_transfer);
	files.set_manifest_url(server.url("/update.xml"));
	expect_next_check_succeeds();
}

// Followed until the ten seconds are over, or 30 times: that is libcurl's own choice.
TEST_F(ManifestFaults, RedirectInALoopFailsTheCheck)
{
	record({.fault = "A redirect in a loop.",
		.caller = "`check`: code 1, after ten seconds or 30 redirects"});
	const FakeClock clock(hurry);
	start_daemon({"--debug"}, clock.settings());
	EXPECT_EQ(text_of(check(redirect("/update.xml")).fields, "error_code"), "1");
	EXPECT_TRUE(syslog.contains(no_transfer));
	expect_next_check_succeeds();
}

} // namespace
