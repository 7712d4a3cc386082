// SPDX-License-Identifier: ISC
// Byte order and the few macros that the other headers and their users share.
// Everything on the bus is big-endian; these are the only conversions.
#pragma once

#include <endian.h>
#include <stdint.h>
#include <sys/types.h>

#ifndef __packed
#define __packed __attribute__((packed))
#endif

#ifndef ARRAY_SIZE
#define ARRAY_SIZE(array) (sizeof(array) / sizeof((array)[0]))
#endif

static inline uint16_t cpu_to_be16(uint16_t value)
{
	return htobe16(value);
}

static inline uint32_t cpu_to_be32(uint32_t value)
{
	return htobe32(value);
}

static inline uint64_t cpu_to_be64(uint64_t value)
{
	return htobe64(value);
}

static inline uint16_t be16_to_cpu(uint16_t value)
{
	return be16toh(value);
}

static inline uint32_t be32_to_cpu(uint32_t value)
{
	return be32toh(value);
}

static inline uint64_t be64_to_cpu(uint64_t value)
{
	return be64toh(value);
}
