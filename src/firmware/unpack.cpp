// SPDX-License-Identifier: ISC
#include "firmware/unpack.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <miniz.h>

#include "base/guards.h"
#include "base/log.h"
#include "base/text.h"
#include "firmware/download.h"

namespace fwupdate
{

namespace
{

// A member of the archive, on the heap. Null when there is none.
struct Member {
	void *data;
	std::size_t size;
};

// The first member of that name, in the archive's own order.
Member extract_from(mz_zip_archive &archive, const char *name)
{
	Member member = {};
	char wanted[MZ_ZIP_MAX_ARCHIVE_FILENAME_SIZE]; // a longer name is not found
	if (!format_text(wanted, sizeof(wanted), "%s", name)) {
		return member;
	}
	std::replace(wanted, wanted + std::strlen(wanted), '\\', '/');
	const int found = mz_zip_reader_locate_file(&archive, wanted, nullptr, 0);
	const auto index = static_cast<mz_uint>(found);
	if (found >= 0 && mz_zip_reader_is_file_a_directory(&archive, index) == 0) {
		member.data = mz_zip_reader_extract_to_heap(&archive, index, &member.size, 0);
	}
	return member;
}

// Whatever goes wrong in the archive leaves no member.
Member extract(const char *name)
{
	Member member = {};
	mz_zip_archive archive;
	mz_zip_zero_struct(&archive);
	if (mz_zip_reader_init_file(&archive, DOWNLOADED_ARCHIVE,
				    MZ_ZIP_FLAG_DO_NOT_SORT_CENTRAL_DIRECTORY) != 0) {
		member = extract_from(archive, name);
		mz_zip_reader_end(&archive);
	}
	return member;
}

} // namespace

int unpack_firmware(const char *name, bool archive)
{
	if (!archive) {
		return 0;
	}
	const Member member = extract(name);
	const HeapGuard guard(member.data);
	if (std::remove(DOWNLOADED_ARCHIVE) != 0) {
		log_message("Error on removing %s\n", DOWNLOADED_ARCHIVE);
		return -1;
	}
	std::FILE *image = std::fopen(DOWNLOADED_IMAGE, "wb");
	if (image == nullptr) {
		log_message("Error while save unpacked firmware\n");
		return -1;
	}
	if (member.data != nullptr) {
		std::fwrite(member.data, 1, member.size, image);
	}
	std::fclose(image);
	return 0;
}

} // namespace fwupdate
