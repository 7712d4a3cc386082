// SPDX-License-Identifier: ISC
#include <cstring>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "discovery/discovery_fixture.h"

namespace
{

class ManifestWrite : public testing::Test
{
protected:
	void SetUp() override
	{
		manifest_buffer = {};
	}
	void TearDown() override
	{
		manifest_buffer = {};
	}
	std::size_t write(std::string text, std::size_t size = 1)
	{
		return manifest_write_cb(text.data(), size, text.size() / size, &too_large);
	}
	static std::string kept()
	{
		return {manifest_buffer.data, manifest_buffer.length};
	}
	static bool is_zero_from(std::size_t offset)
	{
		const std::string rest(manifest_buffer.data + offset, 1025 - offset);
		return rest == std::string(rest.size(), '\0');
	}

	int too_large = 0;
};

// Parses, as the daemon does, a copy of the buffer that ends where the process's memory ends:
// whoever reads past the buffer dies.
void parse_at_the_end_of_memory()
{
	const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
	constexpr std::size_t size = sizeof(manifest_buffer.data);
	void *memory =
		mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
	char *end = static_cast<char *>(memory) + page;
	mprotect(end, page, PROT_NONE);
	std::memcpy(end - size, manifest_buffer.data, size);
	mxmlSetErrorCallback([](const char *) {});
	mxmlDelete(mxmlLoadString(nullptr, end - size, MXML_OPAQUE_CALLBACK));
}

bool survives(void (*action)())
{
	const pid_t child = fork();
	if (child == 0) {
		action();
		_exit(0);
	}
	int status = -1;
	waitpid(child, &status, 0);
	return status == 0;
}

} // namespace

TEST_F(ManifestWrite, KeepsAPieceOfUpTo1024BytesAndNothingOfTheOneBefore)
{
	for (const std::string &text :
	     {std::string("abc"), std::string(1023, 'a'), std::string(1024, 'a'), std::string("b"),
	      std::string("a\0b\0", 4), std::string()}) {
		SCOPED_TRACE(text);
		EXPECT_EQ(write(text), text.size());
		EXPECT_EQ(kept(), text);
		EXPECT_TRUE(is_zero_from(text.size()));
		EXPECT_EQ(too_large, 0);
	}
}

TEST_F(ManifestWrite, CountsElementsOfAnySize)
{
	EXPECT_EQ(write("abcdef", 2), 6u);
	EXPECT_EQ(kept(), "abcdef");
	EXPECT_EQ(write(std::string(1024, 'b'), 1024), 1024u);
	EXPECT_EQ(write(std::string(1025, 'c'), 5), 0u);
	EXPECT_EQ(too_large, 1);
}

TEST_F(ManifestWrite, RefusesMoreAndForgetsWhatItHad)
{
	for (std::size_t size : {1025u, 1026u, 16384u}) {
		SCOPED_TRACE(size);
		too_large = 0;
		write("abc");
		EXPECT_EQ(write(std::string(size, 'x')), 0u);
		EXPECT_EQ(too_large, 1);
		EXPECT_EQ(kept(), "");
		EXPECT_TRUE(is_zero_from(0));
	}
}

// A byte order mark in the middle of a text changes how Mini-XML reads the rest: two bytes at a
// time, or four, past the byte that ends the text.
TEST_F(ManifestWrite, LeavesRoomForMiniXmlToReadPastTheText)
{
	EXPECT_GE(sizeof(manifest_buffer.data), 1025u + 4u);
	const std::string start = "<?xml version=\"1.0\"?><a><b>1</b>";
	const std::string marks[] = {"\376\377", "\377\376"};
	const std::string rests[] = {
		"",	    "x",      "\330",	      "\330\001",     "x\330",
		"\001\330", "xy\330", "\330\001\334", "\001\330\001", "\001\330\001\334"};
	for (const std::string &mark : marks) {
		for (const std::string &rest : rests) {
			std::string text = start;
			text.resize(1024 - mark.size() - rest.size(), ' ');
			text += mark + rest;
			SCOPED_TRACE(testing::PrintToString(mark + rest));
			ASSERT_EQ(write(text), 1024u);
			EXPECT_TRUE(survives(parse_at_the_end_of_memory));
		}
	}
}
