// SPDX-License-Identifier: ISC
// unpack_firmware, on archives made by a real zip.
#include "firmware/unpack.h"

#include <sys/stat.h>
#include <unistd.h>

#include "base/log.h"
#include "support/debug_fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

using Texts = std::vector<std::string>;

constexpr char ARCHIVE[] = "/tmp/fwupdate.zip";
constexpr char IMAGE[] = "/tmp/fwupdate.bin";

class Unpack : public DebugFixture
{
protected:
	void SetUp() override
	{
		DebugFixture::SetUp();
		before_ = open_descriptors(getpid());
	}
	void TearDown() override
	{
		EXPECT_EQ(open_descriptors(getpid()), before_);
		DebugFixture::TearDown();
	}

	// Adds a member, deflated or stored, by the zip program.
	void add(const std::string &name, const std::string &content, bool deflate = true)
	{
		const std::string path = "/tmp/members/" + name;
		shell("mkdir -p $(dirname '" + path + "')");
		files.write(path, content);
		zip(std::string(deflate ? "-9" : "-0") + " '" + name + "'");
	}
	void add_folder(const std::string &name)
	{
		shell("mkdir -p /tmp/members/" + name);
		zip(name);
	}

	// A byte of the archive is changed.
	void damage(std::size_t offset)
	{
		std::string bytes = read_file(ARCHIVE);
		flip_bit(bytes, offset);
		files.write(ARCHIVE, bytes);
	}

private:
	void zip(const std::string &arguments)
	{
		const RunResult result = shell("cd /tmp/members && /host/usr/bin/zip -q -X " +
					       std::string(ARCHIVE) + " " + arguments);
		ASSERT_TRUE(result.status.success()) << result.output << result.errors;
	}

	std::map<int, std::string> before_;
};

} // namespace

TEST_F(Unpack, NothingHappensWithoutAnArchive)
{
	files.write(ARCHIVE, "kept");
	files.write(IMAGE, "kept too");
	EXPECT_EQ(unpack_firmware("image.bin", false), 0);
	EXPECT_EQ(read_file(ARCHIVE), "kept");
	EXPECT_EQ(read_file(IMAGE), "kept too");
}

TEST_F(Unpack, DeflatedAndStoredMembersAreWrittenAndTheArchiveIsDeleted)
{
	const std::string content = std::string(5000, 'a') + noise(5000);
	for (const bool deflate : {true, false}) {
		add("other.bin", "other");
		add("image.bin", content, deflate);
		files.write(IMAGE, std::string(20000, 'o'));
		EXPECT_EQ(unpack_firmware("image.bin", true), 0);
		EXPECT_EQ(read_file(IMAGE), content);
		EXPECT_FALSE(exists(ARCHIVE));
	}
	EXPECT_TRUE(syslog.texts().empty());
}

TEST_F(Unpack, NameMayHaveBackslashesAndAnotherLetterCase)
{
	for (const char *name :
	     {"FW/Image.BIN", "fw/image.bin", "fw\\image.bin", "Fw\\IMAGE.bin"}) {
		add("FW/Image.BIN", "image");
		EXPECT_EQ(unpack_firmware(name, true), 0);
		EXPECT_EQ(read_file(IMAGE), "image") << name;
	}
}

TEST_F(Unpack, FirstOfSeveralMatchesWins)
{
	add("b.BIN", "first");
	add("B.bin", "second");
	EXPECT_EQ(unpack_firmware("b.bin", true), 0);
	EXPECT_EQ(read_file(IMAGE), "first");
}

TEST_F(Unpack, WhatIsNotFoundGivesAnEmptyImage)
{
	for (const char *name :
	     {"image.bi", "image.bin2", "/image.bin", "mage.bin", "fw", "", "./image.bin"}) {
		add("image.bin", "image");
		add("fw/image.bin", "image");
		files.write(IMAGE, "old");
		EXPECT_EQ(unpack_firmware(name, true), 0) << name;
		EXPECT_TRUE(exists(IMAGE));
		EXPECT_EQ(read_file(IMAGE), "") << name;
		EXPECT_FALSE(exists(ARCHIVE));
	}
	EXPECT_TRUE(syslog.texts().empty());
}

TEST_F(Unpack, NameOfMoreThan511CharactersGivesAnEmptyImage)
{
	std::string longest = "n";
	while (longest.size() < 511) {
		longest += "/n";
	}
	for (const auto &[name, image] : {std::pair(longest, "image"), {longest + "n", ""}}) {
		add(name, "image");
		EXPECT_EQ(unpack_firmware(name.c_str(), true), 0);
		EXPECT_EQ(read_file(IMAGE), image);
	}
}

TEST_F(Unpack, FolderGivesAnEmptyImage)
{
	add_folder("fw");
	EXPECT_EQ(unpack_firmware("fw/", true), 0);
	EXPECT_TRUE(exists(IMAGE));
	EXPECT_EQ(read_file(IMAGE), "");
}

TEST_F(Unpack, MissingArchiveIsAFailure)
{
	EXPECT_EQ(unpack_firmware("image.bin", true), -1);
	EXPECT_EQ(syslog.texts(), Texts{"Error on removing /tmp/fwupdate.zip"});
	EXPECT_FALSE(exists(IMAGE));
}

TEST_F(Unpack, ArchiveThatCannotBeDeletedIsAFailure)
{
	ASSERT_EQ(mkdir(ARCHIVE, 0755), 0);
	files.write(std::string(ARCHIVE) + "/inside", "x");
	files.write(IMAGE, "kept");
	EXPECT_EQ(unpack_firmware("image.bin", true), -1);
	EXPECT_EQ(syslog.texts(), Texts{"Error on removing /tmp/fwupdate.zip"});
	EXPECT_EQ(read_file(IMAGE), "kept");
	files.restore();
	rmdir(ARCHIVE);
}

TEST_F(Unpack, ImageThatCannotBeCreatedIsAFailureAndTheArchiveIsGone)
{
	add("image.bin", "image");
	ASSERT_EQ(mkdir(IMAGE, 0755), 0);
	EXPECT_EQ(unpack_firmware("image.bin", true), -1);
	EXPECT_EQ(syslog.texts(), Texts{"Error while save unpacked firmware"});
	EXPECT_FALSE(exists(ARCHIVE));
	rmdir(IMAGE);
}

TEST_F(Unpack, FullDiskStillYieldsSuccess)
{
	const std::string content(3 << 20, 'z'); // 3 MiB, a few kilobytes in the archive
	add("image.bin", content);
	shell("rm -r /tmp/members");
	files.fill_tmp(1 << 20);
	EXPECT_EQ(unpack_firmware("image.bin", true), 0);
	const std::string written = read_file(IMAGE);
	EXPECT_LT(written.size(), content.size());
	EXPECT_EQ(written, content.substr(0, written.size()));
}

TEST_F(Unpack, LargeMemberIsWrittenWhole)
{
	files.set_tmp_size(std::uint64_t{160} << 20);
	for (const bool deflate : {true, false}) {
		const std::string content = deflate ? std::string(24 << 20, 'z') : noise(24 << 20);
		add("image.bin", content, deflate);
		EXPECT_EQ(unpack_firmware("image.bin", true), 0);
		EXPECT_TRUE(read_file(IMAGE) == content);
	}
}

TEST_F(Unpack, DamagedMemberGivesAnEmptyImage)
{
	add("image.bin", noise(5000), false);
	damage(1000);
	EXPECT_EQ(unpack_firmware("image.bin", true), 0);
	EXPECT_EQ(read_file(IMAGE), "");
	EXPECT_FALSE(exists(ARCHIVE));
}

TEST_F(Unpack, FileThatIsNoArchiveGivesAnEmptyImage)
{
	for (const std::string &bytes : {std::string(), std::string("PK"), noise(3000),
					 std::string("PK\x05\x06") + std::string(18, '\xff')}) {
		files.write(ARCHIVE, bytes);
		EXPECT_EQ(unpack_firmware("image.bin", true), 0);
		EXPECT_TRUE(exists(IMAGE));
		EXPECT_EQ(read_file(IMAGE), "");
		EXPECT_FALSE(exists(ARCHIVE));
	}
	EXPECT_TRUE(syslog.texts().empty());
}
