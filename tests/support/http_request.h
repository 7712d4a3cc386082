// SPDX-License-Identifier: ISC
// A request as the test server received it: nothing is decoded, so that a test sees what the client
// really sent.
#pragma once

#include <string>
#include <vector>

namespace router_test
{

struct HttpRequest {
	std::string method = {};
	std::string target = {}; // with the query, exactly as received
	std::vector<std::string> headers = {};

	std::string path() const;
	std::string query() const;			   // without the question mark
	std::string header(const std::string &name) const; // value; empty when absent
	// Value of one query parameter, as received; empty when absent.
	std::string parameter(const std::string &name) const;
};

// Takes apart everything up to and including the empty line.
HttpRequest parse_request(const std::string &head);

} // namespace router_test
