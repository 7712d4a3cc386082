// SPDX-License-Identifier: ISC
// The one thing of the tests' library that no other test would notice.
#include "support/refusals.h"

#include <gtest/gtest.h>
#include <stdexcept>

using namespace router_test;

namespace
{

[[noreturn]] void fail()
{
	throw std::runtime_error("the daemon did not start");
}

// A step that throws fails its test; the other tests of the program still run.
TEST(Refusals, ThrowWhatTheStepThrows)
{
	EXPECT_THROW(with_processes_refused(fail), std::runtime_error);
	EXPECT_THROW(LateRefusals(pipe_calls, fail), std::runtime_error);
}

} // namespace
