// SPDX-License-Identifier: ISC
// What the tests of the manifest's server share.
#pragma once

#include <string>

#include "support/fixture.h"

namespace router_test
{

inline const std::string xml = to_xml({.version = "2.0", .url = "http://a/"});
inline constexpr const char *no_buildtime =
	"Error parsing XML recived from update server, can't find 'buildtime' section";

} // namespace router_test
