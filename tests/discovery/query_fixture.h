// SPDX-License-Identifier: ISC
// A router that asks this test's own server, with the tools that take time replaced by scripts:
// the facts are the subject of other tests.
#pragma once

#include <string>

#include "discovery/discovery_fixture.h"

class QueryFixture : public DiscoveryFixture
{
protected:
	void SetUp() override
	{
		DiscoveryFixture::SetUp();
		set_url(server.url("/update.xml"));
		set_builddate("171000000");
	}

	// An empty text is an option that is not set.
	void set_url(const std::string &url)
	{
		files.install_tool("/sbin/uci", url.empty() ? "exit 1" : "echo '" + url + "'");
	}
	// `ubus` answers everything with this; an empty text leaves the build date out.
	void set_builddate(const std::string &text)
	{
		const std::string release = text.empty() ? "" : R"("builddate": ")" + text + "\"";
		files.install_tool("/usr/bin/ubus", "echo '{\"release\": {" + release + "}}'");
	}
	int query(const HttpAnswer &what)
	{
		server.on("/update.xml", what);
		return query_update_server();
	}
	int query(Manifest manifest)
	{
		if (!manifest.url) {
			manifest.url = "http://a/";
		}
		return query(answer(to_xml(manifest)));
	}
	// The messages of the query itself, without those about facts.
	std::vector<std::string> query_messages() const
	{
		std::vector<std::string> texts = logged();
		std::erase_if(texts, [](const std::string &text) {
			return text.starts_with("Error on reading");
		});
		return texts;
	}

	HttpServer server;
};
