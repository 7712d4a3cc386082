// SPDX-License-Identifier: ISC
//
// The question to the update server: one HTTP GET that says who this router is,
// and the small XML manifest that comes back. Called by `check` and `update`. It
// decides whether there is something to install; it installs nothing.
//
//   manifest.cpp          the query and the decision
//   manifest_request.cpp  the HTTP transfer into ManifestBuffer
#pragma once

#include <cstddef>
#include <cstdint>
#include <mxml.h>

namespace fwupdate
{

// An answer is at most this long, in bytes, and must arrive in one piece.
inline constexpr std::size_t MANIFEST_LIMIT = 1024;

// Near the end of a text that holds a byte order mark Mini-XML 3 reads up to three
// bytes too far; zeros behind the answer keep that harmless.
inline constexpr std::size_t MANIFEST_OVERREAD = 4;

// The server's answer. `data` holds the last piece that arrived, never several
// joined; it stays as it was when an answer has no body at all.
struct ManifestBuffer {
	std::uint32_t length; // of the last piece, in bytes
	char data[MANIFEST_LIMIT + 1 + MANIFEST_OVERREAD];
	mxml_node_t *document; // parsed from data, or null; owned by the buffer
};

extern ManifestBuffer manifest_buffer;

// Asks the server and fills update_manifest. Returns 1 when there is firmware to
// install, 0 when there is not, -1 when the query failed; update_context.state
// tells how far it came. Blocks for the shell probes and up to ten seconds of
// network time. What the manifest says stays there after a failure too, as far
// as it was read.
int query_update_server();

// Fetches `url` and parses the answer into manifest_buffer.document (null when it
// is no XML). Returns 0 when the transfer succeeded, else -1.
int fetch_manifest(const char *url);

// libcurl's write function: keeps the piece as manifest_buffer.data. `too_large`
// points to an int that is set to 1 when the piece exceeds MANIFEST_LIMIT. Returns
// the bytes taken, 0 to end the transfer.
std::size_t manifest_write_cb(char *data, std::size_t size, std::size_t count, void *too_large);

// Copies the text of the first element `name`, wherever it stands, into `field` as strncpy
// does: at most `limit` bytes, without a terminator when there are more, else with zeros up
// to the limit. Takes the element out of the document. Returns 0, or -1 when there is no such
// element or it has no text; the field is then unchanged, and the failure is logged if the
// element is needed.
int manifest_get_value(mxml_node_t *document, const char *name, char *field, std::size_t limit,
		       bool needed);

} // namespace fwupdate
