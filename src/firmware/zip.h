// SPDX-License-Identifier: ISC
//
// Five operations over miniz's ZIP reader: open, select a member, read it whole,
// release. Called by the unpacking alone. None does anything when the archive of
// a failed zip_open (null) is handed to it.
#pragma once

#include <cstddef>

namespace fwupdate
{

// An archive opened for reading. There is one at a time, with static storage.
struct ZipArchive;

// Opens `path`; `level` counts only for writing, and `mode` is 'r'. Null when the
// path is empty or the file is no readable archive.
ZipArchive *zip_open(const char *path, int level, char mode);

// Selects the first member, in the archive's order, whose full name is `name`, with
// backslashes taken for slashes and letters compared without case. Returns 0, or
// -1 when there is none; nothing is selected then.
int zip_entry_open(ZipArchive *archive, const char *name);

// Extracts the selected member into new heap memory, which the caller frees with
// std::free. Returns 0, or -1, with null and 0, when nothing is selected, the
// member is a directory, or it is damaged.
int zip_entry_read(ZipArchive *archive, void **buffer, std::size_t *size);

// Release the selection; release the archive.
void zip_entry_close(ZipArchive *archive);
void zip_close(ZipArchive *archive);

} // namespace fwupdate
