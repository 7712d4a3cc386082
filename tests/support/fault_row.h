// SPDX-License-Identifier: ISC
// A fault as a row of a table. A test that makes it records the row, next to what it compares and,
// where it can, with words made of the same values; tests/list_faults prints them all.
#pragma once

#include <gtest/gtest.h>
#include <string>

namespace router_test
{

struct FaultRow {
	std::string fault;  // what goes wrong
	std::string caller; // what the caller sees
	std::string left = "nothing";
};

inline void record(const FaultRow &row)
{
	testing::Test::RecordProperty("fault", row.fault);
	testing::Test::RecordProperty("caller", row.caller);
	testing::Test::RecordProperty("left", row.left);
}

// The last part of a parameterized test's name: the parameter's own `name`.
inline constexpr auto case_name = [](const auto &info) {
	return std::string(info.param.name);
};

} // namespace router_test
