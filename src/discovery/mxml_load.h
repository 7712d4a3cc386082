// SPDX-License-Identifier: ISC
// Loading a document, which Mini-XML 4 does by options and Mini-XML 3 by callbacks. All
// else that the daemon calls is the same in both. CMake says which one was found.
#pragma once

#include <mxml.h>

namespace fwupdate
{

#if FWUPDATE_MXML_MAJOR >= 4

inline constexpr mxml_descend_t ALL_LEVELS = MXML_DESCEND_ALL;

// Loads `text` with every value as the text it is. Null when it is no XML; the document is the
// caller's. Complaints are dropped: the daemon's standard error is not for them.
inline mxml_node_t *load_document(const char *text)
{
	mxml_options_t *options = mxmlOptionsNew();
	mxmlOptionsSetTypeValue(options, MXML_TYPE_OPAQUE);
	mxmlOptionsSetErrorCallback(
		options, [](void *, const char *) {}, nullptr);
	mxml_node_t *document = mxmlLoadString(nullptr, options, text);
	mxmlOptionsDelete(options);
	return document;
}

#else

inline constexpr int ALL_LEVELS = MXML_DESCEND;

// As for version 4.
inline mxml_node_t *load_document(const char *text)
{
	mxmlSetErrorCallback([](const char *) {});
	return mxmlLoadString(nullptr, text, MXML_OPAQUE_CALLBACK);
}

#endif

} // namespace fwupdate
