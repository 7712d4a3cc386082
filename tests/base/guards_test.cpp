// SPDX-License-Identifier: ISC
// What a guard holds is given back once, at the end of its scope, also when there is nothing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <type_traits>

#include "base/guards.h"
#include "support/files.h"
#include "support/process_table.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

int released;
int last_released;

void count_release(int held)
{
	released++;
	last_released = held;
}

using CountingGuard = Guard<int, count_release>;

// A copy would give it back a second time.
static_assert(!std::is_copy_constructible_v<CountingGuard>);
static_assert(!std::is_copy_assignable_v<CountingGuard>);

std::string mappings()
{
	return read_file("/proc/self/maps");
}

} // namespace

TEST(Guards, ReleaseOnceAtTheEndOfTheScope)
{
	released = 0;
	{
		const CountingGuard guard(7);
		EXPECT_EQ(guard.get(), 7);
		EXPECT_EQ(released, 0);
	}
	EXPECT_EQ(released, 1);
	EXPECT_EQ(last_released, 7);
}

TEST(Guards, CloseStreamsAndDescriptors)
{
	const auto before = open_descriptors(getpid());
	{
		const StreamGuard opened(std::fopen("/etc/passwd", "re"));
		const StreamGuard failed(std::fopen("/no/such/file", "re"));
		const DescriptorGuard descriptor(open("/etc/passwd", O_RDONLY | O_CLOEXEC));
		const DescriptorGuard none(-1);
		EXPECT_NE(opened.get(), nullptr);
		EXPECT_EQ(failed.get(), nullptr);
		EXPECT_GE(descriptor.get(), 0);
	}
	EXPECT_EQ(open_descriptors(getpid()), before);
}

TEST(Guards, UnmapWhatWasMapped)
{
	constexpr std::size_t size = 4096;
	const int descriptor = open("/etc/passwd", O_RDONLY | O_CLOEXEC);
	const DescriptorGuard descriptor_guard(descriptor);
	{
		const MappingGuard mapping(
			{mmap(nullptr, size, PROT_READ, MAP_SHARED, descriptor, 0), size});
		const MappingGuard none({MAP_FAILED, size});
		ASSERT_NE(mapping.get().start, MAP_FAILED);
		EXPECT_NE(mappings().find("/etc/passwd"), std::string::npos);
	}
	EXPECT_EQ(mappings().find("/etc/passwd"), std::string::npos);
}
