// SPDX-License-Identifier: ISC
// What the unpacking of archives calls in miniz, over libzip: reading one member into memory.
// Writing, streaming and the zlib look-alikes are left out.
#pragma once

#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <zip.h>

typedef uint16_t mz_uint16;
typedef uint32_t mz_uint32;
typedef uint64_t mz_uint64;
typedef uint32_t mz_uint;
typedef int mz_bool;

#define MZ_FALSE (0)
#define MZ_TRUE (1)
#define MZ_ZIP_MAX_ARCHIVE_FILENAME_SIZE 512

// Members are always searched in the order of the central directory here.
enum { MZ_ZIP_FLAG_DO_NOT_SORT_CENTRAL_DIRECTORY = 0x0800 };

typedef struct mz_zip_archive {
	mz_uint32 m_total_files;
	struct zip *m_state; // owned; NULL when no archive is open
} mz_zip_archive;

typedef struct mz_zip_archive_file_stat {
	mz_uint32 m_file_index;
	mz_uint16 m_method;
	mz_uint32 m_crc32;
	mz_uint64 m_comp_size;	 // bytes in the archive
	mz_uint64 m_uncomp_size; // bytes that the archive promises
	mz_bool m_is_directory;
	char m_filename[MZ_ZIP_MAX_ARCHIVE_FILENAME_SIZE]; // cut off where it is longer
} mz_zip_archive_file_stat;

static inline void mz_free(void *p)
{
	free(p);
}

// Comes before mz_zip_reader_init_file.
static inline void mz_zip_zero_struct(mz_zip_archive *zip)
{
	memset(zip, 0, sizeof(*zip));
}

// Opens an archive for reading. False, with nothing to end, when the file cannot be read
// or is no ZIP archive. `flags` chooses nothing here.
static inline mz_bool mz_zip_reader_init_file(mz_zip_archive *zip, const char *filename,
					      mz_uint32 flags)
{
	zip_int64_t count;

	(void)flags;
	if (!filename || zip->m_state)
		return MZ_FALSE;
	zip->m_state = zip_open(filename, ZIP_RDONLY, NULL);
	if (!zip->m_state)
		return MZ_FALSE;
	count = zip_get_num_entries(zip->m_state, 0);
	zip->m_total_files = (mz_uint32)count;
	return MZ_TRUE;
}

// False when no archive is open.
static inline mz_bool mz_zip_reader_end(mz_zip_archive *zip)
{
	if (!zip->m_state)
		return MZ_FALSE;
	zip_discard(zip->m_state);
	mz_zip_zero_struct(zip);
	return MZ_TRUE;
}

static inline mz_uint mz_zip_reader_get_num_files(mz_zip_archive *zip)
{
	return zip->m_total_files;
}

// The name as it is stored; NULL for an index that does not exist.
static inline const char *mz_zip_stored_name(mz_zip_archive *zip, mz_uint file_index)
{
	if (!zip->m_state || file_index >= zip->m_total_files)
		return NULL;
	return zip_get_name(zip->m_state, file_index, ZIP_FL_ENC_RAW);
}

// The index of the first member, in the order of the central directory, whose full stored
// name equals `name` but for the case of ASCII letters; -1 when there is none. Only what
// `comment` NULL and `flags` 0 ask for is provided, and nothing is found otherwise.
static inline int mz_zip_reader_locate_file(mz_zip_archive *zip, const char *name,
					    const char *comment, mz_uint flags)
{
	if (!name || comment || flags)
		return -1;
	for (mz_uint i = 0; i < zip->m_total_files && i < INT_MAX; i++) {
		const char *stored = mz_zip_stored_name(zip, i);

		if (stored && strcasecmp(stored, name) == 0)
			return (int)i;
	}
	return -1;
}

// Whether the member's name ends in a slash; false for an index that does not exist.
static inline mz_bool mz_zip_reader_is_file_a_directory(mz_zip_archive *zip, mz_uint file_index)
{
	const char *stored = mz_zip_stored_name(zip, file_index);
	const size_t len = stored ? strlen(stored) : 0;

	return len > 0 && stored[len - 1] == '/';
}

// False for an index that does not exist; `stat` is then as it was.
static inline mz_bool mz_zip_reader_file_stat(mz_zip_archive *zip, mz_uint file_index,
					      mz_zip_archive_file_stat *stat)
{
	const char *stored = mz_zip_stored_name(zip, file_index);
	struct zip_stat found;

	if (!stored || zip_stat_index(zip->m_state, file_index, ZIP_FL_ENC_RAW, &found) != 0)
		return MZ_FALSE;
	memset(stat, 0, sizeof(*stat));
	stat->m_file_index = file_index;
	stat->m_method = found.comp_method;
	stat->m_crc32 = found.crc;
	stat->m_comp_size = found.comp_size;
	stat->m_uncomp_size = found.size;
	stat->m_is_directory = mz_zip_reader_is_file_a_directory(zip, file_index);
	memcpy(stat->m_filename, stored, strnlen(stored, sizeof(stat->m_filename) - 1));
	return MZ_TRUE;
}

// Reads exactly `size` bytes, and the end of the member behind them: that is where libzip
// compares the checksum.
static inline mz_bool mz_zip_read_whole(struct zip_file *file, unsigned char *buffer, size_t size)
{
	unsigned char beyond;
	size_t have = 0;

	while (have < size) {
		const zip_int64_t got = zip_fread(file, buffer + have, size - have);

		if (got <= 0)
			return MZ_FALSE;
		have += (size_t)got;
	}
	return zip_fread(file, &beyond, 1) == 0;
}

// The content of a stored or deflated member, for mz_free() or free(), and its size in
// bytes. NULL and size 0 without memory, for encrypted members and other methods, and for
// a member whose data is damaged, whose size or checksum is not what the archive
// promises. NULL, and `size` as it was, for an index that does not exist. `flags` chooses
// nothing here.
static inline void *mz_zip_reader_extract_to_heap(mz_zip_archive *zip, mz_uint file_index,
						  size_t *size, mz_uint flags)
{
	mz_zip_archive_file_stat stat;
	unsigned char *buffer = NULL;
	struct zip_file *file;

	(void)flags;
	if (!mz_zip_reader_file_stat(zip, file_index, &stat))
		return NULL;
	if (size)
		*size = 0;
	if (stat.m_method != ZIP_CM_STORE && stat.m_method != ZIP_CM_DEFLATE)
		return NULL;
	file = zip_fopen_index(zip->m_state, file_index, 0);
	if (!file)
		return NULL;
	if (stat.m_uncomp_size < SIZE_MAX)
		buffer = (unsigned char *)malloc((size_t)stat.m_uncomp_size + 1);
	if (buffer && !mz_zip_read_whole(file, buffer, (size_t)stat.m_uncomp_size)) {
		free(buffer);
		buffer = NULL;
	}
	zip_fclose(file);
	if (buffer && size)
		*size = (size_t)stat.m_uncomp_size;
	return buffer;
}
