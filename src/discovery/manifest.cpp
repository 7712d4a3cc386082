// SPDX-License-Identifier: ISC
#include "discovery/manifest.h"

#include <cstring>

#include "base/log.h"
#include "base/records.h"
#include "base/text.h"
#include "discovery/device_facts.h"
#include "discovery/mxml_load.h"

namespace fwupdate
{

namespace
{

constexpr std::size_t REQUEST_URL_SIZE = 2048;

void release_document()
{
	mxmlDelete(manifest_buffer.document);
	manifest_buffer.document = nullptr;
}

// The facts go into the query as they are, without percent-encoding.
void format_request_url(char (&url)[REQUEST_URL_SIZE])
{
	const DeviceFacts &facts = device_facts;
	const char *base = facts.cpe_update_xml_url[0] != '\0' ? facts.cpe_update_xml_url
							       : FWUPDATE_MANIFEST_URL;
	format_text(url, sizeof(url),
		    "%s?fw=%s&version=%s&mac=%s&ip=%s&model=%s&sn=%s&customid=%s&os=%s", base,
		    facts.cpe_builddate, facts.cpe_version, facts.cpe_wan_mac, facts.cpe_wan_ip,
		    facts.cpe_model, facts.cpe_sn, device_customid(), "VOLKRAN");
}

bool is_one(const char *flag)
{
	return std::strcmp(flag, "1") == 0;
}

// In the order of the query. The limit is how many bytes are kept: less than the field for
// three of them; the whole field, without a terminator, for the others.
constexpr struct {
	char element[14];
	bool needed;
	std::uint16_t field; // byte of the record that it begins at
	std::uint16_t limit;
} VALUES[] = {
	{"buildtime", true, offsetof(UpdateManifest, buildtime), 9},
	{"url", true, offsetof(UpdateManifest, url), sizeof(UpdateManifest::url)},
	{"version", false, offsetof(UpdateManifest, version), sizeof(UpdateManifest::version)},
	{"release_notes", false, offsetof(UpdateManifest, release_notes),
	 sizeof(UpdateManifest::release_notes)},
	{"force_update", false, offsetof(UpdateManifest, force_update), 2},
	{"archive", false, offsetof(UpdateManifest, archive), 2},
	{"file_name", false, offsetof(UpdateManifest, file_name),
	 sizeof(UpdateManifest::file_name)},
};

int read_values(mxml_node_t *document)
{
	auto *record = reinterpret_cast<char *>(&update_manifest);
	for (const auto &[element, needed, field, limit] : VALUES) {
		if (manifest_get_value(document, element, record + field, limit, needed) != 0 &&
		    needed) {
			return -1;
		}
	}
	return is_one(update_manifest.archive) && update_manifest.file_name[0] == '\0' ? -1 : 0;
}

// A forced manifest offers older builds as well, but never the installed one.
int decide()
{
	const auto device = static_cast<std::uint32_t>(parse_decimal(device_facts.cpe_builddate));
	const auto server = static_cast<std::uint32_t>(parse_decimal(update_manifest.buildtime));
	if (device < server) {
		return 1;
	}
	return device != server && is_one(update_manifest.force_update) ? 1 : 0;
}

} // namespace

ManifestBuffer manifest_buffer;

int query_update_server()
{
	char url[REQUEST_URL_SIZE] = {};

	// A query that failed leaves its document behind.
	release_document();
	update_context.state = UpdateState::NETWORK_GET;
	gather_device_facts();
	read_cpe_model();
	format_request_url(url);
	if (fetch_manifest(url) != 0) {
		return -1;
	}
	if (read_values(manifest_buffer.document) != 0) {
		return -1;
	}
	release_document();
	const int result = decide();
	update_context.state = UpdateState::XML_DONE;
	return result;
}

int manifest_get_value(mxml_node_t *document, const char *name, char *field, std::size_t limit,
		       bool needed)
{
	update_context.state = UpdateState::XML_PARSE;
	mxml_node_t *element =
		mxmlFindElement(document, document, name, nullptr, nullptr, ALL_LEVELS);
	if (element == nullptr) {
		if (needed) {
			log_message(
				"Error parsing XML recived from update server, can't find '%s' section\n",
				name);
		}
		return -1;
	}
	const char *text = mxmlGetOpaque(element);
	if (text == nullptr) {
		mxmlDelete(element);
		if (needed) {
			log_message(
				"Error parsing XML recived from update server, can't get '%s' value\n",
				name);
		}
		return -1;
	}
	std::strncpy(field, text, limit);
	mxmlDelete(element);
	return 0;
}

} // namespace fwupdate
