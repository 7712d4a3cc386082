// SPDX-License-Identifier: ISC
// What an update server can do to the daemon.
#include <gmock/gmock.h>

#include "router/server_fixture.h"

using namespace router_test;

namespace
{

class ManifestServer : public RouterTest
{
protected:
	Fields check(const HttpAnswer &what)
	{
		server.on("/update.xml", what);
		const Reply reply = daemon().check();
		EXPECT_EQ(reply.status, 0);
		return reply.fields;
	}
};

} // namespace

TEST_F(ManifestServer, EmptyAnswerRepeatsTheOneBefore)
{
	start_daemon();
	const Fields first = check(answer(xml));
	EXPECT_EQ(check(answer("")), first);
	EXPECT_EQ(check(answer(404, "")), first);
	EXPECT_EQ(daemon().state_name(), "XML_DONE");
	// Of an answer that was refused nothing is left to repeat.
	check(answer(std::string(1025, ' ')));
	EXPECT_EQ(text_of(check(answer("")), "error_code"), "1");
	EXPECT_EQ(daemon().state_name(), "XML_PARSE");
}

TEST_F(ManifestServer, ArchiveNeedsAFileNameAndSaysNothingOfIt)
{
	start_daemon();
	const HttpAnswer archive = answer(to_xml({.url = "http://a/", .archive = "1"}));
	EXPECT_EQ(text_of(check(archive), "error_code"), "1");
	EXPECT_EQ(daemon().state_name(), "XML_PARSE");
	EXPECT_TRUE(syslog.lines().empty());
	check(answer(to_xml({.url = "http://a/", .file_name = "image.bin"})));
	EXPECT_EQ(text_of(check(archive), "error_code"), "0");
}

TEST_F(ManifestServer, ValuesThatFillTheirFieldsRunOnIntoTheNext)
{
	const std::string version(20, 'v');
	const std::string notes(512, 'n');
	const std::string installed = router_builddate();
	start_daemon();
	check(answer(to_xml({.version = version + "cut", .buildtime = installed, .url = "u"})));
	const Fields fields = check(answer("<?xml version=\"1.0\"?><u><buildtime>" + installed +
					   "</buildtime><url>u</url><release_notes>" + notes +
					   "cut</release_notes></u>"));
	EXPECT_EQ(text_of(fields, "version"), version + installed);
	EXPECT_EQ(text_of(fields, "releasenotes"), notes + version + installed);
	const Fields update = daemon().update().fields;
	EXPECT_EQ(text_of(update, "version"), version + installed);
	EXPECT_EQ(text_of(update, "buildtime"), installed);
}

TEST_F(ManifestServer, UrlThatFillsItsFieldIsUsedWhole)
{
	const std::string start = server.url("/firmware.bin?");
	const std::string url = start + std::string(300, 'u');
	offer({.url = url});
	start_daemon();
	EXPECT_EQ(text_of(daemon().update().fields, "error_code"), "2");
	EXPECT_TRUE(daemon().wait_for_workers(0));
	ASSERT_EQ(server.requests("/firmware.bin").size(), 1u);
	EXPECT_EQ(server.url(server.requests("/firmware.bin")[0].target), url.substr(0, 256));
}

TEST_F(ManifestServer, IsTheBuiltInOneWhenNoneIsConfigured)
{
	HttpServer built_in("192.0.2.1", 80);
	built_in.on("/update.xml", answer(xml));
	files.set_manifest_url("");
	start_daemon();
	EXPECT_EQ(text_of(daemon().check().fields, "version"), "2.0");
	ASSERT_EQ(built_in.requests().size(), 1u);
	const HttpRequest request = built_in.requests()[0];
	EXPECT_EQ(request.header("Host"), "update.example.com");
	EXPECT_EQ(request.target, "/update.xml?fw=" + router_builddate() +
					  "&version=r1234&mac=02:00:00:00:00:10&ip=192.0.2.10"
					  "&model=QOR,MODEL-X&sn=AB12345&customid=&os=VOLKRAN");
	EXPECT_TRUE(syslog.contains("Error on reading cpe_update_xml_url"));
}
