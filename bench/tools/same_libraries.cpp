// SPDX-License-Identifier: ISC
// One function of each library that the daemon calls: the program that has these pointers
// loads what the daemon loads.
#include <cstddef>
#include <curl/curl.h>
#include <mxml.h>

#include "base/crc32.h"

namespace
{

[[gnu::used, gnu::retain]] CURL *(*const transfer)() = curl_easy_init;
[[gnu::used, gnu::retain]] void (*const document)(mxml_node_t *) = mxmlDelete;
[[gnu::used, gnu::retain]] std::uint32_t (*const checksum)(const void *,
							   std::size_t) = fwupdate::crc32_of;

} // namespace
