// SPDX-License-Identifier: ISC
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <miniz.h>
#include <vector>

#include "base/crc32.h"
#include "zip_maker.h"

namespace
{

uint32_t crc_of(const std::string &text)
{
	return fwupdate::crc32_of(text.data(), text.size());
}

ZipMember stored(const std::string &name, const std::string &content)
{
	return {name, content, crc_of(content), static_cast<uint32_t>(content.size())};
}

// "firmware " a thousand times.
ZipMember deflated(const std::string &name)
{
	static const unsigned char data[] = {
		0xed, 0xc6, 0xa1, 0x0d, 0x00, 0x30, 0x08, 0x00, 0xb0, 0x57, 0x78, 0x6d,
		0x02, 0x92, 0x89, 0x19, 0x0c, 0xef, 0xf3, 0xc7, 0xd2, 0xaa, 0xd6, 0xed,
		0x37, 0xa7, 0x33, 0x4a, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44,
		0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0xe4, 0xdf, 0x2c,
	};

	return {name, std::string(reinterpret_cast<const char *>(data), sizeof(data)), 0x99a8870f,
		9000, 8};
}

// An archive in a file of its own, opened the way the daemon does it.
class Archive
{
public:
	explicit Archive(const std::string &bytes)
	{
		const int fd = mkstemp(path_);

		if (fd < 0 ||
		    write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
			abort();
		close(fd);
		mz_zip_zero_struct(&zip_);
		is_open_ = mz_zip_reader_init_file(&zip_, path_,
						   MZ_ZIP_FLAG_DO_NOT_SORT_CENTRAL_DIRECTORY);
	}
	~Archive()
	{
		mz_zip_reader_end(&zip_);
		unlink(path_);
	}
	Archive(const Archive &) = delete;
	Archive &operator=(const Archive &) = delete;

	bool is_open() const
	{
		return is_open_;
	}
	mz_zip_archive *get()
	{
		return &zip_;
	}
	int locate(const char *name)
	{
		return mz_zip_reader_locate_file(&zip_, name, nullptr, 0);
	}
	// "(nothing)" when there is nothing to extract.
	std::string extract(int index)
	{
		size_t size = 12345;
		void *data =
			mz_zip_reader_extract_to_heap(&zip_, static_cast<mz_uint>(index), &size, 0);

		if (!data)
			return "(nothing)";
		std::string content(static_cast<char *>(data), size);
		mz_free(data);
		return content;
	}

private:
	char path_[32] = "/tmp/miniz_test.XXXXXX";
	mz_zip_archive zip_;
	bool is_open_;
};

TEST(Miniz, MembersAreExtractedWhole)
{
	std::string firmware;
	std::string binary;
	for (int i = 0; i < 1000; i++)
		firmware += "firmware ";
	for (int i = 0; i < 100000; i++)
		binary += static_cast<char>(i * 7);
	Archive archive(
		ZipMaker({stored("plain.bin", binary), deflated("packed.bin"), stored("empty", "")})
			.bytes());

	ASSERT_TRUE(archive.is_open());
	EXPECT_EQ(mz_zip_reader_get_num_files(archive.get()), 3u);
	EXPECT_TRUE(archive.extract(archive.locate("plain.bin")) == binary);
	EXPECT_EQ(archive.extract(archive.locate("packed.bin")), firmware);
	EXPECT_EQ(archive.extract(archive.locate("empty")), "");
}

TEST(Miniz, NamesAreComparedWholeAndWithoutCase)
{
	Archive archive(ZipMaker({stored("dir/", ""), stored("dir/Image.BIN", "1"),
				  stored("image.bin", "2"), stored("IMAGE.bin", "3"),
				  stored("back\\slash", "4")})
				.bytes());
	const struct {
		const char *name;
		int index;
	} cases[] = {
		{"dir/Image.BIN", 1},
		{"DIR/image.bin", 1},
		{"IMAGE.bin", 2},
		{"Image.Bin", 2},
		{"DIR/", 0},
		{"back\\SLASH", 4},
		{"dir", -1},
		{"dir/image", -1},
		{"/dir/image.bin", -1},
		{"dir\\image.bin", -1},
		{"back/slash", -1},
		{"image.bin ", -1},
		{"image.bi", -1},
		{"mage.bin", -1},
		{"*", -1},
		{"", -1},
	};

	for (const auto &c : cases)
		EXPECT_EQ(archive.locate(c.name), c.index) << c.name;
}

TEST(Miniz, TheStatTellsWhatTheDirectoryOfTheArchiveSays)
{
	mz_zip_archive_file_stat stat;
	Archive archive(ZipMaker({stored("d/", ""), deflated("packed.bin")}).bytes());

	ASSERT_TRUE(mz_zip_reader_file_stat(archive.get(), 1, &stat));
	EXPECT_STREQ(stat.m_filename, "packed.bin");
	EXPECT_EQ(stat.m_uncomp_size, 9000u);
	EXPECT_EQ(stat.m_comp_size, 47u);
	EXPECT_EQ(stat.m_method, 8);
	EXPECT_EQ(stat.m_crc32, 0x99a8870fu);
	EXPECT_FALSE(stat.m_is_directory);
	ASSERT_TRUE(mz_zip_reader_file_stat(archive.get(), 0, &stat));
	EXPECT_TRUE(stat.m_is_directory);
	EXPECT_TRUE(mz_zip_reader_is_file_a_directory(archive.get(), 0));
	EXPECT_FALSE(mz_zip_reader_is_file_a_directory(archive.get(), 1));
	EXPECT_FALSE(mz_zip_reader_is_file_a_directory(archive.get(), 2));
	EXPECT_FALSE(mz_zip_reader_file_stat(archive.get(), 2, &stat));
}

TEST(Miniz, DamagedMembersAreNotExtracted)
{
	ZipMember damaged_data = stored("a", "some content");
	ZipMember damaged_stream = deflated("a");
	ZipMember wrong_crc = stored("a", "some content");
	ZipMember promises_more = deflated("a");
	ZipMember promises_less = deflated("a");
	ZipMember promises_all = deflated("a");
	ZipMember cut_stream = deflated("a");
	ZipMember encrypted = stored("a", "some content, its twelve byte head");
	ZipMember odd_method = stored("a", "some content");

	damaged_data.data[3] ^= 1;
	damaged_stream.data[5] ^= 0x10;
	wrong_crc.crc ^= 0x80000000;
	promises_more.size += 1;
	promises_less.size -= 1;
	promises_all.size = 0x7ffffff0;
	cut_stream.data.resize(20);
	encrypted.bit_flags = 1;
	odd_method.method = 12;
	const struct {
		const char *name;
		ZipMember member;
	} cases[] = {
		{"damaged data", damaged_data},
		{"damaged stream", damaged_stream},
		{"wrong CRC", wrong_crc},
		{"promises one byte more", promises_more},
		{"promises a byte less", promises_less},
		{"promises 2 GB", promises_all},
		{"cut off stream", cut_stream},
		{"encrypted", encrypted},
		{"unknown method", odd_method},
	};

	for (const auto &c : cases) {
		Archive archive(ZipMaker({c.member, stored("good", "content")}).bytes());
		size_t size = 12345;

		ASSERT_TRUE(archive.is_open()) << c.name;
		ASSERT_EQ(archive.locate("a"), 0) << c.name;
		EXPECT_EQ(mz_zip_reader_extract_to_heap(archive.get(), 0, &size, 0), nullptr)
			<< c.name;
		EXPECT_EQ(size, 0u) << c.name;
		EXPECT_EQ(archive.extract(archive.locate("good")), "content") << c.name;
	}
}

// Whether the whole archive is refused or only the member, nothing comes out.
TEST(Miniz, ImpossibleMembersYieldNothing)
{
	std::vector<ZipMember> cases = {deflated("a")};

	cases[0].data.clear();
	for (const uint32_t change : {1u, 5u, 0x1000u, 0x7fffffffu, 0xffffffffu}) {
		cases.push_back(stored("a", "some content"));
		cases.back().offset_change = change;
	}
	for (const ZipMember &member : cases) {
		Archive archive(ZipMaker({stored("b", "x"), member}).bytes());

		EXPECT_EQ(archive.extract(archive.locate("a")), "(nothing)")
			<< member.data.size() << " " << member.offset_change;
	}
}

TEST(Miniz, WhatIsNoArchiveIsNotOpened)
{
	const std::string whole = ZipMaker({stored("a", "content"), deflated("b")}).bytes();
	const std::string cases[] = {
		"",
		"P",
		"PK\5\6",
		std::string(22, '\0'),
		"no archive at all, only text",
		whole.substr(0, whole.size() / 2),
		whole.substr(0, whole.size() - 1),
		whole.substr(0, whole.size() - 22),
		std::string(whole.size(), '\xff'),
	};

	for (const std::string &bytes : cases) {
		Archive archive(bytes);

		EXPECT_FALSE(archive.is_open()) << bytes.size();
		EXPECT_FALSE(mz_zip_reader_end(archive.get())) << bytes.size();
	}
}

TEST(Miniz, WhatCannotBeReadIsNotOpened)
{
	for (const char *path : {"", "/nonexistent/archive.zip", "/tmp", "/dev/null"}) {
		mz_zip_archive zip;

		mz_zip_zero_struct(&zip);
		EXPECT_FALSE(mz_zip_reader_init_file(&zip, path,
						     MZ_ZIP_FLAG_DO_NOT_SORT_CENTRAL_DIRECTORY))
			<< path;
		EXPECT_EQ(mz_zip_reader_locate_file(&zip, "a", nullptr, 0), -1);
		EXPECT_EQ(mz_zip_reader_extract_to_heap(&zip, 0, nullptr, 0), nullptr);
		EXPECT_FALSE(mz_zip_reader_end(&zip));
	}
}

TEST(Miniz, AnEmptyArchiveHasNoMembers)
{
	Archive archive(ZipMaker({}).bytes());

	ASSERT_TRUE(archive.is_open());
	EXPECT_EQ(archive.locate("a"), -1);
	EXPECT_EQ(archive.extract(0), "(nothing)");
	EXPECT_EQ(archive.extract(-1), "(nothing)");
}

} // namespace
