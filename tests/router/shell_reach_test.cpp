// SPDX-License-Identifier: ISC
// What callers name becomes part of shell commands, as it is: part of the interface, and the reason
// why only those whom one trusts as root may call `update` and `test` (docs/security.md).
#include <cstdio>
#include <filesystem>

#include "router/update_fixture.h"

using namespace router_test;

namespace
{

constexpr const char *trace = "/var/reached";
constexpr const char *odd_folder = "/var/a;touch ";
constexpr const char *odd_name = "/var/a;touch /var/reached;b";

class ShellReach : public UpdateTest
{
protected:
	void TearDown() override
	{
		UpdateTest::TearDown();
		std::filesystem::remove_all(odd_folder);
		std::remove(trace);
	}
};

TEST_F(ShellReach, PartitionIsPartOfACommand)
{
	offer(answer(good_image()));
	start_daemon();
	const Reply reply =
		update(1, {string_field("partition", "firmware;touch " + std::string(trace))});
	expect_outcome(reply, {});
	EXPECT_TRUE(exists(trace));
	expect_recorded("firmware");
	expect_installed();
}

TEST_F(ShellReach, FileIsPartOfACommand)
{
	std::filesystem::create_directories(std::string(odd_folder) + "/var");
	files.write(odd_name, "no U-Boot image");
	start_daemon();
	daemon().test({string_field("file", odd_name)});
	EXPECT_TRUE(exists(trace));
}

} // namespace
