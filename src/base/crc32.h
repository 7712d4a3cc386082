// SPDX-License-Identifier: ISC
//
// The standard CRC-32, by the library that CMake has found: miniz, else zlib, which every
// router has.
#pragma once

#include <cstddef>
#include <cstdint>

#if FWUPDATE_CRC32_BY_MINIZ
#include <miniz.h>
#else
#include <zlib.h>
#endif

namespace fwupdate
{

inline std::uint32_t crc32_of(const void *bytes, std::size_t size)
{
	const auto *start = static_cast<const unsigned char *>(bytes);
#if FWUPDATE_CRC32_BY_MINIZ
	return static_cast<std::uint32_t>(mz_crc32(MZ_CRC32_INIT, start, size));
#else
	return static_cast<std::uint32_t>(crc32_z(0, start, size));
#endif
}

} // namespace fwupdate
