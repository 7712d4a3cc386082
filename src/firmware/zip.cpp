// SPDX-License-Identifier: ISC
#include "firmware/zip.h"

#include <algorithm>
#include <cstring>

#include "base/miniz_headers.h"
#include "base/text.h"

namespace fwupdate
{

struct ZipArchive {
	mz_zip_archive reader;
	int selected; // index of the member, or NO_MEMBER
};

namespace
{

constexpr int NO_MEMBER = -1;
constexpr std::size_t MEMBER_NAME_SIZE = 512; // a longer name is not found

ZipArchive the_archive;

bool holds_file(ZipArchive &archive)
{
	return archive.selected != NO_MEMBER &&
	       mz_zip_reader_is_file_a_directory(&archive.reader,
						 static_cast<mz_uint>(archive.selected)) == 0;
}

} // namespace

ZipArchive *zip_open(const char *path, int /*level*/, char mode)
{
	if (path[0] == '\0' || mode != 'r') {
		return nullptr;
	}
	mz_zip_zero_struct(&the_archive.reader);
	the_archive.selected = NO_MEMBER;
	// Unsorted: the first match in the archive's own order is wanted.
	if (mz_zip_reader_init_file(&the_archive.reader, path,
				    MZ_ZIP_FLAG_DO_NOT_SORT_CENTRAL_DIRECTORY) == 0) {
		return nullptr;
	}
	return &the_archive;
}

int zip_entry_open(ZipArchive *archive, const char *name)
{
	char wanted[MEMBER_NAME_SIZE];
	if (archive == nullptr) {
		return -1;
	}
	archive->selected = NO_MEMBER;
	if (format_text(wanted, sizeof(wanted), "%s", name)) {
		std::replace(wanted, wanted + std::strlen(wanted), '\\', '/');
		archive->selected = mz_zip_reader_locate_file(&archive->reader, wanted, nullptr, 0);
	}
	return archive->selected == NO_MEMBER ? -1 : 0;
}

int zip_entry_read(ZipArchive *archive, void **buffer, std::size_t *size)
{
	*buffer = nullptr;
	*size = 0;
	if (archive == nullptr || !holds_file(*archive)) {
		return -1;
	}
	std::size_t extracted = 0;
	*buffer = mz_zip_reader_extract_to_heap(
		&archive->reader, static_cast<mz_uint>(archive->selected), &extracted, 0);
	if (*buffer == nullptr) {
		return -1;
	}
	*size = extracted;
	return 0;
}

void zip_entry_close(ZipArchive *archive)
{
	if (archive != nullptr) {
		archive->selected = NO_MEMBER;
	}
}

void zip_close(ZipArchive *archive)
{
	if (archive != nullptr) {
		mz_zip_reader_end(&archive->reader);
	}
}

} // namespace fwupdate
