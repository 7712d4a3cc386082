// SPDX-License-Identifier: ISC
#include <gmock/gmock.h>

#include "discovery/query_fixture.h"

using testing::IsEmpty;

namespace
{

class RequestUrl : public QueryFixture
{
protected:
	void SetUp() override
	{
		QueryFixture::SetUp();
		server.on("/update.xml", answer(to_xml({.url = "http://a/"})));
		set_board("r1234", "qor,model-x");
	}
	void set_board(const std::string &revision, const std::string &board_name)
	{
		files.write("/etc/router/answer",
			    R"({"board_name": ")" + board_name + R"(", "release": {"revision": ")" +
				    revision + R"(", "builddate": "171000000"}, )" +
				    R"("device": "wan"})");
		files.install_tool("/usr/bin/ubus", "cat /etc/router/answer");
	}
	void set_serial(const std::string &serial)
	{
		files.write("/etc/router/serial", serial + "\n");
	}
	std::string last_target() const
	{
		const std::vector<HttpRequest> all = server.requests();
		return all.empty() ? "" : all.back().target;
	}
};

const std::string facts_of_the_router =
	"?fw=171000000&version=r1234&mac=02:00:00:00:00:10&ip=192.0.2.10&model=QOR,MODEL-X"
	"&sn=AB12345&customid=&os=VOLKRAN";

} // namespace

TEST_F(RequestUrl, SaysWhoThisRouterIs)
{
	EXPECT_EQ(query_update_server(), 1);
	ASSERT_EQ(server.requests().size(), 1u);
	const HttpRequest request = server.requests()[0];
	EXPECT_EQ(request.method, "GET");
	EXPECT_EQ(request.target, "/update.xml" + facts_of_the_router);
	EXPECT_EQ(request.header("User-Agent"), "");
	EXPECT_EQ(request.header("Accept"), "*/*");
}

TEST_F(RequestUrl, KeepsAQueryOfTheConfiguredOne)
{
	set_url(server.url("/update.xml?channel=beta"));
	EXPECT_EQ(query_update_server(), 1);
	EXPECT_EQ(last_target(), "/update.xml?channel=beta" + facts_of_the_router);
}

TEST_F(RequestUrl, IsAlwaysTheConfiguredOneHoweverShort)
{
	set_url("a");
	EXPECT_EQ(query_update_server(), -1);
	EXPECT_TRUE(syslog.contains("(url = 'a" + facts_of_the_router + "')"));
}

TEST_F(RequestUrl, HasEmptyValuesForFactsThatAreMissing)
{
	files.install_tool("/usr/bin/ubus", "echo '{}'");
	files.install_tool("/sbin/ip", "exit 1");
	files.install_tool("/usr/sbin/qor_factory", "exit 1");
	EXPECT_EQ(query_update_server(), 1);
	EXPECT_EQ(last_target(),
		  "/update.xml?fw=&version=&mac=&ip=&model=&sn=&customid=&os=VOLKRAN");
}

TEST_F(RequestUrl, IsNotPercentEncoded)
{
	const std::vector<std::pair<std::string, std::string>> revisions = {
		// as the board information has it; as the server sees it
		{"a&b=c?d/e", "a&b=c?d/e"},
		{"100%+%41%zz", "100%+%41%zz"},
		{"<\\\"'>|\\\\^`{}[]~", "<\"'>|\\^`{}[]~"},
		{"%s%n%d", "%s%n%d"},
		{"\\u00e9\\u20ac", "\303\251\342\202\254"},
		{"$(id);`id`", "$(id);`id`"},
		{"a;b,c:d@e!f*g(h)", "a;b,c:d@e!f*g(h)"},
	};
	for (const auto &[revision, seen] : revisions) {
		SCOPED_TRACE(revision);
		set_board(revision, "m");
		EXPECT_EQ(query_update_server(), 1);
		const std::string target = last_target();
		const std::size_t start = target.find("&version=") + 9;
		EXPECT_EQ(target.substr(start, target.find("&mac=") - start), seen);
	}
}

TEST_F(RequestUrl, EndsForTheServerAtANumberSign)
{
	set_serial("AB#12");
	EXPECT_EQ(query_update_server(), 1);
	EXPECT_EQ(last_target(), "/update.xml?fw=171000000&version=r1234&mac=02:00:00:00:00:10"
				 "&ip=192.0.2.10&model=QOR,MODEL-X&sn=AB");
}

TEST_F(RequestUrl, HasRoomForTheLongestFacts)
{
	const std::string base = server.url("/update.xml?" + std::string(300, 'b'));
	set_url(base);
	set_serial(std::string(40, 's'));
	files.write("/etc/router/answer", R"({"board_name": ")" + std::string(40, 'm') +
						  R"(", "release": {"revision": ")" +
						  std::string(80, 'v') +
						  R"(", "builddate": "1234567890123456"}})");
	EXPECT_EQ(query_update_server(), 0);
	const std::string kept = base.substr(0, 255);
	EXPECT_EQ(server.url(last_target()),
		  kept + "?fw=123456789012345&version=" + std::string(63, 'v') +
			  "&mac=&ip=192.0.2.10&model=" + std::string(31, 'M') +
			  "&sn=" + std::string(31, 's') + "&customid=&os=VOLKRAN");
}

// A blank, or the carriage return of a serial number that ends in one, makes it no URL at all.
TEST_F(RequestUrl, WithABlankOrControlCharacterIsNotAsked)
{
	for (const char *serial : {"AB 12", "AB12345\r", "AB\t12", "AB\00112"}) {
		SCOPED_TRACE(serial);
		syslog.clear();
		set_serial(serial);
		EXPECT_EQ(query_update_server(), -1);
		EXPECT_EQ(update_context.state, UpdateState::XML_CONNECT);
		const std::string end = " (url = '" +
					server.url("/update.xml?fw=171000000&version=r1234"
						   "&mac=02:00:00:00:00:10&ip=192.0.2.10"
						   "&model=QOR,MODEL-X&sn=") +
					serial + "&customid=&os=VOLKRAN')";
		const std::vector<std::string> messages = query_messages();
		ASSERT_EQ(messages.size(), 1u);
		EXPECT_THAT(messages[0],
			    testing::StartsWith("Error on geting update info via CURL ["));
		EXPECT_THAT(messages[0], testing::EndsWith(end));
	}
	EXPECT_THAT(server.requests(), IsEmpty());
}
