// SPDX-License-Identifier: ISC
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/fixture.h"

using namespace router_test;

namespace
{
class Files : public RouterFixture
{
};
class Fixture : public RouterTest
{
};
using Words = std::vector<std::string>;
} // namespace

TEST_F(Files, RestoresWhatItChanged)
{
	std::string mtd = read_file("/proc/mtd");
	std::string link = "/etc/router/link";
	ASSERT_EQ(symlink("/etc/passwd", link.c_str()), 0);
	std::string passwords = read_file("/etc/passwd");
	files.set_mtd({{"boot", 0x1000}, {"kernel", 0x2000, 0x1000}});
	files.write(link, "a file now");
	files.write("/etc/router/new", "new");
	files.remove("/etc/router/board.json");
	EXPECT_EQ(read_file("/proc/mtd"), "dev:    size   erasesize  name\n"
					  "mtd0: 00001000 00010000 \"boot\"\n"
					  "mtd1: 00002000 00001000 \"kernel\"\n");
	EXPECT_EQ(read_file("/etc/passwd"), passwords);
	EXPECT_FALSE(exists("/etc/router/board.json"));
	files.restore();
	EXPECT_EQ(read_file("/proc/mtd"), mtd);
	EXPECT_EQ(std::filesystem::read_symlink(link), "/etc/passwd");
	EXPECT_FALSE(exists("/etc/router/new"));
	EXPECT_TRUE(exists("/etc/router/board.json"));
	unlink(link.c_str());
}

TEST_F(Files, SetsTheManifestUrlThatUciReads)
{
	const char *command = "uci -q get system.@system[0].fwupdate_xml_url";
	EXPECT_EQ(shell(command).output, "");
	files.set_manifest_url("http://127.0.0.1:1/update.xml");
	EXPECT_EQ(shell(command).output, "http://127.0.0.1:1/update.xml\n");
	files.set_manifest_url("http://127.0.0.1:2/");
	EXPECT_EQ(shell(command).output, "http://127.0.0.1:2/\n");
	files.set_manifest_url("");
	EXPECT_EQ(shell(command).output, "");
	EXPECT_NE(read_file("/etc/config/system").find("hostname"), std::string::npos);
}

TEST_F(Files, SetsTheBootEnvironmentThatTheToolsRead)
{
	files.set_boot_environment({"bootpart=firmware", "a=b c"});
	EXPECT_EQ(run({"/usr/sbin/fw_printenv"}).output, "a=b c\nbootpart=firmware\n");
	EXPECT_TRUE(run({"/usr/sbin/fw_setenv", "bootpart", "other"}).status.success());
	EXPECT_EQ(run({"/usr/sbin/fw_printenv", "-n", "bootpart"}).output, "other\n");
}

TEST_F(Files, RecordsTheCallsOfATool)
{
	std::string tool = "/usr/sbin/qor_factory";
	files.install_recording_tool(tool, "echo SERIAL; exit 3");
	EXPECT_TRUE(files.tool_calls(tool).empty());
	RunResult result = shell("qor_factory r sn; qor_factory 'two words' ''");
	EXPECT_EQ(result.output, "SERIAL\nSERIAL\n");
	EXPECT_EQ(result.status.code, 3);
	ASSERT_TRUE(files.wait_for_tool_calls(tool, 2));
	EXPECT_EQ(files.tool_calls(tool)[0], (Words{tool, "r", "sn"}));
	EXPECT_EQ(files.tool_calls(tool)[1], (Words{tool, "two words", ""}));
	EXPECT_FALSE(files.wait_for_tool_calls(tool, 3, milliseconds(10)));
}

TEST_F(Files, SizesAndFillsTmp)
{
	std::uint64_t size = free_bytes("/tmp");
	files.set_tmp_size(1 << 20);
	EXPECT_LE(free_bytes("/tmp"), std::uint64_t{1 << 20});
	files.fill_tmp(8192);
	EXPECT_EQ(free_bytes("/tmp"), 8192u);
	files.restore();
	EXPECT_EQ(free_bytes("/tmp"), size);
}

TEST_F(Files, WaitsForAFileToAppear)
{
	EXPECT_FALSE(wait_until_exists("/tmp/later", milliseconds(10)));
	Process writer({.words = {"sh", "-c", "read go; : >/tmp/later"}, .input = "go\n"});
	EXPECT_TRUE(wait_until_exists("/tmp/later"));
	writer.wait();
	unlink("/tmp/later");
	EXPECT_TRUE(wait_until_gone("/tmp/later", milliseconds(0)));
}

TEST_F(Files, CollectsTheLog)
{
	SyslogCatcher syslog;
	shell("logger -p user.info -t word 'first line'; logger second");
	ASSERT_TRUE(syslog.wait_for_count("second", 1));
	std::optional<LogLine> line = syslog.wait_for("first");
	ASSERT_TRUE(line);
	EXPECT_EQ(line->priority, 14);
	EXPECT_EQ(line->ident, "word");
	EXPECT_EQ(line->text, "first line");
	EXPECT_EQ(syslog.lines().size(), 2u);
	EXPECT_FALSE(syslog.wait_for("third", milliseconds(10)));
	syslog.clear();
	EXPECT_FALSE(syslog.contains("first"));
}

TEST_F(Files, ImagesAreAsTheirToolsHaveThem)
{
	std::string image = make_uimage("payload", {.name = "MODEL-Y"});
	ASSERT_EQ(image.size(), 64u + 7);
	EXPECT_EQ(image.substr(0, 4), "\x27\x05\x19\x56");
	EXPECT_STREQ(image.substr(32, 32).c_str(), "MODEL-Y");
	files.write("/tmp/image", build_uimage("payload", {.name = "MODEL-Y"}));
	RunResult listing = run({"mkimage", "-l", "/tmp/image"});
	EXPECT_TRUE(listing.status.success()) << listing.output << listing.errors;
	EXPECT_NE(listing.output.find("MODEL-Y"), std::string::npos);

	std::string json = metadata_json({"MODEL-X", "MODEL-Z"}, "77");
	files.write("/tmp/image", with_metadata("firmware", json));
	EXPECT_TRUE(run({"fwtool", "-i", "/tmp/json", "/tmp/image"}).status.success());
	EXPECT_EQ(read_file("/tmp/json"), json);
	EXPECT_EQ(shell("jsonfilter -i /tmp/json -e '@.version.customid'").output, "77\n");
	EXPECT_NE(with_signature("firmware", "signed"), "firmware");
}

TEST_F(Files, ArchivesAreReadByBusyBox)
{
	std::string content = noise(5000) + std::string(5000, 'x');
	files.write("/tmp/archive.zip",
		    make_zip({{"stored", "as it is", false}, {"folder/deflated", content}}));
	EXPECT_EQ(
		run({"/host/usr/bin/busybox", "unzip", "-p", "/tmp/archive.zip", "stored"}).output,
		"as it is");
	EXPECT_EQ(
		run({"/host/usr/bin/busybox", "unzip", "-p", "/tmp/archive.zip", "folder/deflated"})
			.output,
		content);
}

TEST_F(Fixture, HasNoDaemonThatDidNotStart)
{
	EXPECT_THROW(daemon(), std::logic_error);
	files.install_tool("/bin/pidof", "exit 1"); // the daemon ends at once
	EXPECT_THROW(start_daemon(), std::runtime_error);
	EXPECT_THROW(daemon(), std::logic_error);
}
