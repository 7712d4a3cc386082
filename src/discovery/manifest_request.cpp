// SPDX-License-Identifier: ISC
#include <cstring>
#include <curl/curl.h>

#include "base/log.h"
#include "base/records.h"
#include "discovery/manifest.h"
#include "discovery/mxml_load.h"

namespace fwupdate
{

namespace
{

constexpr long REQUEST_TIMEOUT = 10; // seconds, for the connection and for all

// Failures after which the daemon's state still says that it connects. A time-out is
// one of them, even when a part of the answer has arrived.
bool counts_as_not_connected(CURLcode code)
{
	switch (code) {
	case CURLE_UNSUPPORTED_PROTOCOL:
	case CURLE_URL_MALFORMAT:
	case CURLE_COULDNT_RESOLVE_HOST:
	case CURLE_COULDNT_CONNECT:
	case CURLE_REMOTE_ACCESS_DENIED:
	case CURLE_HTTP_RETURNED_ERROR:
	case CURLE_OPERATION_TIMEDOUT:
		return true;
	default:
		return false;
	}
}

CURLcode transfer(CURL *curl, const char *url, char *error)
{
	int too_large = 0;
	curl_easy_setopt(curl, CURLOPT_URL, url);
	curl_easy_setopt(curl, CURLOPT_WRITEDATA, &too_large);
	curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, manifest_write_cb);
	curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
	curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, REQUEST_TIMEOUT);
	curl_easy_setopt(curl, CURLOPT_TIMEOUT, REQUEST_TIMEOUT);
	curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
	const CURLcode code = curl_easy_perform(curl);
	curl_easy_cleanup(curl);
	return code;
}

} // namespace

int fetch_manifest(const char *url)
{
	char error[CURL_ERROR_SIZE] = {};

	update_context.state = UpdateState::XML_CONNECT;
	CURL *curl = curl_easy_init();
	if (curl == nullptr) {
		log_message("Error, couldn't init curl\n");
		return -1;
	}
	const CURLcode code = transfer(curl, url, error);
	if (code != CURLE_OK) {
		if (!counts_as_not_connected(code)) {
			update_context.state = UpdateState::XML_GET;
		}
		log_message("Error on geting update info via CURL [%s] (url = '%s')\n", error, url);
		return -1;
	}
	manifest_buffer.document = load_document(manifest_buffer.data);
	return 0;
}

std::size_t manifest_write_cb(char *data, std::size_t size, std::size_t count, void *too_large)
{
	const std::size_t length = size * count;
	manifest_buffer.length = 0;
	std::memset(manifest_buffer.data, 0, sizeof(manifest_buffer.data));
	if (length > MANIFEST_LIMIT) {
		*static_cast<int *>(too_large) = 1;
		return 0;
	}
	std::memcpy(manifest_buffer.data, data, length);
	manifest_buffer.length = static_cast<std::uint32_t>(length);
	return length;
}

} // namespace fwupdate
