// SPDX-License-Identifier: ISC
#include "firmware/unpack.h"

#include <cstddef>
#include <cstdio>

#include "base/guards.h"
#include "base/log.h"
#include "firmware/download.h"
#include "firmware/zip.h"

namespace fwupdate
{

namespace
{

// A member of the archive, on the heap. Null when there is none.
struct Member {
	void *data;
	std::size_t size;
};

// Whatever goes wrong in the archive leaves an empty member.
Member extract(const char *name)
{
	Member member = {};
	ZipArchive *archive = zip_open(DOWNLOADED_ARCHIVE, 0, 'r');
	zip_entry_open(archive, name);
	zip_entry_read(archive, &member.data, &member.size);
	zip_entry_close(archive);
	zip_close(archive);
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
