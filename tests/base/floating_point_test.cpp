// SPDX-License-Identifier: ISC
#include <cstdint>
#include <gtest/gtest.h>

namespace
{

// A processor without a floating-point unit calls a function of the compiler's library for each
// of these. That library must take its arguments where such a processor passes them.
TEST(FloatingPoint, IsCountedAsTheTargetPassesIt)
{
	const volatile double three = 3, half = 0.5;
	const volatile float quarter = 0.25F;
	const volatile int64_t large = INT64_C(-3) << 40;
	EXPECT_EQ(three * half + three / half - half, 7.0);
	EXPECT_LT(half, three);
	EXPECT_EQ(static_cast<int>(three * three), 9);
	EXPECT_EQ(static_cast<double>(quarter) + quarter * quarter, 0.3125);
	EXPECT_EQ(static_cast<int64_t>(static_cast<double>(large) * three), large * 3);
}

} // namespace
