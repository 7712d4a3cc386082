// SPDX-License-Identifier: ISC
// What the documentation of Mini-XML 4 declares, as far as the daemon uses it. Debian has
// Mini-XML 3, against which everything is tested; with this the other half compiles.
#pragma once

#define MXML_MAJOR_VERSION 4

// The names are that library's.
// NOLINTBEGIN(readability-identifier-naming)
extern "C" {
struct mxml_node_t;
struct mxml_options_t;

enum mxml_descend_t { MXML_DESCEND_FIRST = -1, MXML_DESCEND_NONE = 0, MXML_DESCEND_ALL = 1 };
enum mxml_type_t { MXML_TYPE_ELEMENT, MXML_TYPE_OPAQUE, MXML_TYPE_TEXT };
using mxml_error_cb_t = void (*)(void *data, const char *message);

mxml_options_t *mxmlOptionsNew();
void mxmlOptionsDelete(mxml_options_t *options);
void mxmlOptionsSetTypeValue(mxml_options_t *options, mxml_type_t type);
void mxmlOptionsSetErrorCallback(mxml_options_t *options, mxml_error_cb_t callback, void *data);
mxml_node_t *mxmlLoadString(mxml_node_t *top, mxml_options_t *options, const char *text);
mxml_node_t *mxmlFindElement(mxml_node_t *node, mxml_node_t *top, const char *element,
			     const char *attribute, const char *value, mxml_descend_t descend);
const char *mxmlGetOpaque(mxml_node_t *node);
void mxmlDelete(mxml_node_t *node);
}
// NOLINTEND(readability-identifier-naming)
