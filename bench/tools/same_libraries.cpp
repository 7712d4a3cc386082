// SPDX-License-Identifier: ISC
// One function of each library that the daemon calls: the program that has these pointers
// loads what the daemon loads.
#include <cstddef>
#include <curl/curl.h>
#include <mxml.h>

#include "base/miniz_headers.h"

namespace
{

[[gnu::used, gnu::retain]] CURL *(*const transfer)() = curl_easy_init;
[[gnu::used, gnu::retain]] void (*const document)(mxml_node_t *) = mxmlDelete;
[[gnu::used, gnu::retain]] mz_ulong (*const checksum)(mz_ulong, const unsigned char *,
						      std::size_t) = mz_crc32;

} // namespace
