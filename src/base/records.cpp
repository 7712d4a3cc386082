// SPDX-License-Identifier: ISC
#include "base/records.h"

namespace fwupdate
{

namespace
{

// The zero byte behind the manifest ends a `url` that fills its field.
struct {
	UpdateManifest manifest;
	char end;
} storage;

} // namespace

UpdateContext update_context;
UpdateManifest &update_manifest = storage.manifest;

const char *manifest_text_at(std::size_t offset)
{
	// Derived from the whole storage, not from a member: compilers may assume
	// that a text ends inside the array it starts in.
	return reinterpret_cast<const char *>(&storage) + offset;
}

} // namespace fwupdate
