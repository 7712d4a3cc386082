// SPDX-License-Identifier: ISC
//
// What was opened, allocated or mapped is given back at the end of its scope. One
// guard for everything; a guard neither moves nor is copied.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace fwupdate
{

// Hands `held` to RELEASE, which must bear a resource that was never there.
template<typename Held, void (*RELEASE)(Held)> class Guard
{
public:
	explicit Guard(Held held) : held_(held)
	{
	}
	Guard(const Guard &) = delete;
	Guard &operator=(const Guard &) = delete;
	~Guard()
	{
		RELEASE(held_);
	}

	Held get() const
	{
		return held_;
	}

private:
	Held held_;
};

// A stretch of memory that mmap gave, MAP_FAILED included.
struct MappedBytes {
	void *start;
	std::size_t size;
};

inline void close_descriptor(int descriptor)
{
	close(descriptor);
}

inline void close_stream(std::FILE *stream)
{
	if (stream != nullptr) {
		std::fclose(stream);
	}
}

inline void unmap(MappedBytes bytes)
{
	if (bytes.start != MAP_FAILED) {
		munmap(bytes.start, bytes.size);
	}
}

using DescriptorGuard = Guard<int, close_descriptor>;
using StreamGuard = Guard<std::FILE *, close_stream>; // of fopen or fdopen
using HeapGuard = Guard<void *, std::free>;
using MappingGuard = Guard<MappedBytes, unmap>;

} // namespace fwupdate
