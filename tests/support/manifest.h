// SPDX-License-Identifier: ISC
// The update server's answer as a record with defaults, so that a test names only what it is about.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace router_test
{

struct Manifest {
	std::optional<std::string> version = "2.0";
	std::optional<std::string> buildtime = "190000000"; // newer than the simulated router's
	std::optional<std::string> url = {};
	std::optional<std::string> release_notes = {};
	std::optional<std::string> force_update = {};
	std::optional<std::string> archive = {};
	std::optional<std::string> file_name = {};
	std::string extra = {}; // further XML inside the root element, before the others
};

// A well-formed document with an XML declaration; fields without a value are left out. Values
// are escaped.
std::string to_xml(const Manifest &manifest);

} // namespace router_test
