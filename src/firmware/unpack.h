// SPDX-License-Identifier: ISC
//
// Turns a downloaded ZIP archive into the raw image. The update job does not call
// it: an archive ends as a failed image check. It is here for integrators.
#pragma once

namespace fwupdate
{

// With `archive` set: extracts the member `name` (any letter case, backslashes
// for slashes) of DOWNLOADED_ARCHIVE, deletes the archive and writes the member
// to DOWNLOADED_IMAGE. Returns 0, or -1 when the archive cannot be deleted or the
// image not be created. A member that is missing, a directory or damaged gives an
// empty image and 0; so does a disk that is full, with as much as fitted. The
// whole member is held in memory once. Without `archive` nothing happens: 0.
int unpack_firmware(const char *name, bool archive);

} // namespace fwupdate
