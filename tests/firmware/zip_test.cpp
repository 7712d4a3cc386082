// SPDX-License-Identifier: ISC
// The five operations under the unpacking.
#include "firmware/zip.h"

#include <cstdlib>

#include "support/fixture.h"

using namespace fwupdate;
using namespace router_test;

namespace
{

constexpr char ARCHIVE[] = "/tmp/some.zip";

class Zip : public RouterFixture
{
protected:
	void SetUp() override
	{
		RouterFixture::SetUp();
		files.write(ARCHIVE, make_zip({{"fw/", ""},
					       {"fw/image.bin", "image"},
					       {"note", "text", false}}));
	}

	// The selected member; the result's number when it cannot be read.
	static std::string read(ZipArchive *archive)
	{
		char size_before = 0;
		void *buffer = &size_before;
		std::size_t size = 77;
		const int result = zip_entry_read(archive, &buffer, &size);
		if (result != 0) {
			EXPECT_EQ(buffer, nullptr);
			EXPECT_EQ(size, 0u);
			return std::to_string(result);
		}
		std::string content(static_cast<char *>(buffer), size);
		std::free(buffer);
		return content;
	}
};

} // namespace

TEST_F(Zip, OpensOnlyAReadableArchive)
{
	files.write("/tmp/text", "no archive");
	for (const char *path : {"", "/no/such/file", "/tmp", "/tmp/text"}) {
		EXPECT_EQ(zip_open(path, 0, 'r'), nullptr) << path;
	}
	ZipArchive *archive = zip_open(ARCHIVE, 0, 'r');
	EXPECT_NE(archive, nullptr);
	zip_close(archive);
}

TEST_F(Zip, IsForReadingOnly)
{
	EXPECT_EQ(zip_open(ARCHIVE, 0, 'w'), nullptr);
}

TEST_F(Zip, ReadsTheSelectedMember)
{
	ZipArchive *archive = zip_open(ARCHIVE, 0, 'r');
	EXPECT_EQ(zip_entry_open(archive, "FW\\image.BIN"), 0);
	EXPECT_EQ(read(archive), "image");
	EXPECT_EQ(zip_entry_open(archive, "note"), 0);
	EXPECT_EQ(read(archive), "text");
	zip_close(archive);
}

TEST_F(Zip, NothingIsReadWithoutASelection)
{
	ZipArchive *archive = zip_open(ARCHIVE, 0, 'r');
	EXPECT_EQ(read(archive), "-1");
	EXPECT_EQ(zip_entry_open(archive, "note"), 0);
	zip_entry_close(archive);
	EXPECT_EQ(read(archive), "-1");
	EXPECT_EQ(zip_entry_open(archive, "note"), 0);
	EXPECT_EQ(zip_entry_open(archive, "missing"), -1);
	EXPECT_EQ(read(archive), "-1");
	EXPECT_EQ(zip_entry_open(archive, "fw/"), 0);
	EXPECT_EQ(read(archive), "-1") << "a folder";
	zip_close(archive);
}

TEST_F(Zip, DamagedMemberIsNotRead)
{
	std::string bytes = make_zip({{"note", "text", false}});
	bytes.replace(bytes.find("text"), 1, "T");
	files.write(ARCHIVE, bytes);
	ZipArchive *archive = zip_open(ARCHIVE, 0, 'r');
	EXPECT_EQ(zip_entry_open(archive, "note"), 0);
	EXPECT_EQ(read(archive), "-1");
	zip_close(archive);
}

TEST_F(Zip, SelectionDoesNotOutliveTheArchive)
{
	ZipArchive *archive = zip_open(ARCHIVE, 0, 'r');
	EXPECT_EQ(zip_entry_open(archive, "note"), 0);
	zip_close(archive);
	archive = zip_open(ARCHIVE, 0, 'r');
	EXPECT_EQ(read(archive), "-1");
	zip_close(archive);
}

TEST_F(Zip, AbsentArchiveIsLeftAlone)
{
	EXPECT_EQ(zip_entry_open(nullptr, "note"), -1);
	EXPECT_EQ(read(nullptr), "-1");
	zip_entry_close(nullptr);
	zip_close(nullptr);
}

TEST_F(Zip, LongestNameIs511Characters)
{
	const std::string fits(511, 'n');
	files.write(ARCHIVE, make_zip({{fits, "fits"}, {fits + "n", "too long"}}));
	ZipArchive *archive = zip_open(ARCHIVE, 0, 'r');
	EXPECT_EQ(zip_entry_open(archive, fits.c_str()), 0);
	EXPECT_EQ(read(archive), "fits");
	EXPECT_EQ(zip_entry_open(archive, (fits + "n").c_str()), -1);
	zip_close(archive);
}
