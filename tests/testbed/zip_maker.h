// SPDX-License-Identifier: ISC
// Writes ZIP archives byte by byte, so that a test can make every field lie.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct ZipMember {
	std::string name;
	std::string data;	    // as it stands in the archive
	uint32_t crc;		    // of the content
	uint32_t size;		    // of the content
	uint16_t method = 0;	    // 0 stored, 8 deflated
	uint16_t bit_flags = 0;	    // 1 encrypted
	uint32_t offset_change = 0; // added to where the directory says the member is
};

class ZipMaker
{
public:
	explicit ZipMaker(const std::vector<ZipMember> &members)
	{
		std::string directory;

		for (const ZipMember &member : members) {
			const size_t offset = archive_.size();

			put(archive_, 0x04034b50, 4);
			put_common(archive_, member);
			put(archive_, 0, 2); // extra field
			archive_ += member.name + member.data;

			put(directory, 0x02014b50, 4);
			put(directory, 20, 2);
			put_common(directory, member);
			put(directory, 0, 2 + 2 + 2 + 2); // extra, comment, disk, internal
			put(directory, 0, 4);		  // external
			put(directory, offset + member.offset_change, 4);
			directory += member.name;
		}
		const size_t start = archive_.size();
		archive_ += directory;
		put(archive_, 0x06054b50, 4);
		put(archive_, 0, 4); // disks
		put(archive_, members.size(), 2);
		put(archive_, members.size(), 2);
		put(archive_, directory.size(), 4);
		put(archive_, start, 4);
		put(archive_, 0, 2); // comment
	}

	const std::string &bytes() const
	{
		return archive_;
	}

private:
	static void put(std::string &to, uint64_t value, int bytes)
	{
		for (int i = 0; i < bytes; i++)
			to += static_cast<char>(value >> (8 * i));
	}
	static void put_common(std::string &to, const ZipMember &member)
	{
		put(to, 20, 2); // version needed
		put(to, member.bit_flags, 2);
		put(to, member.method, 2);
		put(to, 0x5a210000, 4); // 1 January 2025
		put(to, member.crc, 4);
		put(to, member.data.size(), 4);
		put(to, member.size, 4);
		put(to, member.name.size(), 2);
	}

	std::string archive_;
};
