// SPDX-License-Identifier: ISC
// One request to this test's own server, without the facts and the values around it.
#pragma once

#include <string>

#include "discovery/discovery_fixture.h"

class RequestFixture : public DiscoveryFixture
{
protected:
	int fetch(const std::string &url)
	{
		mxmlDelete(manifest_buffer.document);
		manifest_buffer.document = nullptr;
		return fetch_manifest(url.c_str());
	}
	int fetch(const HttpAnswer &what)
	{
		server.on("/update.xml", what);
		return fetch(server.url("/update.xml"));
	}
	// What the buffer holds, by the length that it says.
	static std::string kept()
	{
		return {manifest_buffer.data, manifest_buffer.length};
	}

	HttpServer server;
	const std::string xml = to_xml({});
};
