// SPDX-License-Identifier: ISC
// The CRC-32, whichever library it comes from.
#include "base/crc32.h"

#include <gtest/gtest.h>
#include <string>

using namespace fwupdate;

TEST(Crc32, IsTheStandardOne)
{
	EXPECT_EQ(crc32_of("123456789", 9), 0xcbf43926u);
	EXPECT_EQ(crc32_of("123456789", 0), 0u);
	EXPECT_EQ(crc32_of(std::string(100000, 'x').data(), 100000), 0xfe071171u);
}
