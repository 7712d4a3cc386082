// SPDX-License-Identifier: ISC
#include "base/records.h"

namespace fwupdate
{

UpdateContext update_context;
UpdateManifest update_manifest;

const char *manifest_text(const char *field)
{
	// Derived from the whole record, not from a member: compilers may assume that a text
	// ends inside the array it starts in.
	const auto *start = reinterpret_cast<const char *>(&update_manifest);
	return start + (field - start);
}

} // namespace fwupdate
