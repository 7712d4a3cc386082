// SPDX-License-Identifier: ISC
#include "tool_test.h"

using namespace std::string_literals;
using router_test::run;
using router_test::RunResult;

namespace
{

const std::string json = "{ \"metadata_version\": \"1.1\" }\n";
const std::string image = "An image of sufficient length; " + std::string(1000, '\xa5');

class FwTool : public ToolTest
{
protected:
	static RunResult fwtool(const std::vector<std::string> &options)
	{
		std::vector<std::string> words = {tool("fwtool")};
		words.insert(words.end(), options.begin(), options.end());
		return run(words);
	}

	// The firmware with one more chunk, as the tool appends it.
	std::string with(const char *option, const std::string &firmware,
			 const std::string &data) const
	{
		const RunResult result =
			fwtool({option, write("data", data), write("firmware", firmware)});
		EXPECT_EQ(result.status.code, 0) << result.errors;
		return read("firmware");
	}

	// A failed run says why, and leaves an empty OUT and the firmware as it was.
	void expect_failure(const std::string &firmware, const std::string &message) const
	{
		write("out", "stale");
		const RunResult result = fwtool({"-i", path("out"), write("firmware", firmware)});
		EXPECT_EQ(result.status.code, 1);
		EXPECT_EQ(result.errors, message + "\n");
		EXPECT_TRUE(exists("out") && read("out").empty()) << message;
		EXPECT_TRUE(read("firmware") == firmware) << message;
	}
};

TEST_F(FwTool, AppendsTheFormatByteForByte)
{
	// 340bc6d9 is the inverse of CRC-32's published check value of these nine digits.
	EXPECT_EQ(with("-S", "123456789", ""), "123456789FWx0\x34\x0b\xc6\xd9\0\0\0\0\0\0\0\x10"s);
	const std::string whole = with("-I", "123456789", "{}");
	EXPECT_EQ(whole.substr(0, 23), "123456789\0\0\0\0\0\0\0\0{}FWx0"s);
	EXPECT_EQ(whole.substr(27), "\x01\0\0\0\0\0\0\x1a"s);
}

TEST_F(FwTool, ExtractsTheLastMetadata)
{
	const std::string metadata = with("-I", image, json);
	for (const std::string &firmware :
	     {metadata, with("-S", metadata, "SIGNED"), with("-I", with("-I", image, "{}"), json),
	      with("-I", with("-S", image, "S"), json)}) {
		const RunResult result = fwtool({"-i", path("out"), write("firmware", firmware)});
		EXPECT_EQ(result.status.code, 0) << result.errors;
		EXPECT_EQ(read("out"), json);
		EXPECT_EQ(fwtool({"-i", "-", path("firmware")}).output, json);
		EXPECT_TRUE(read("firmware") == firmware);
	}
}

TEST_F(FwTool, RefusesWhatIsNoSoundMetadata)
{
	const std::string metadata = with("-I", image, json);
	std::string damaged = metadata;
	damaged[100] ^= 1;
	expect_failure(damaged, "CRC error");
	expect_failure(image, "Data not found");
	expect_failure(with("-S", image, "S"), "Data not found");
	expect_failure("", "File too short");
	expect_failure(metadata.substr(metadata.size() - 16), "File too short");
	expect_failure(metadata.substr(image.size()), "File too short"); // no image before it
	for (const std::string &size :
	     {"\0\0\0\0"s, "\0\0\0\x17"s, "\0\0\x80\x11"s, "\xff\xff\xff\xff"s}) {
		expect_failure(metadata.substr(0, metadata.size() - 4) + size, "Size error");
	}
	EXPECT_EQ(fwtool({"-q", "-i", path("out"), path("firmware")}).errors, "");
}

TEST_F(FwTool, AMissingFirmwareFileLeavesAnEmptyOutput)
{
	const RunResult result = fwtool({"-i", path("out"), path("absent")});
	EXPECT_EQ(result.status.code, 1);
	EXPECT_EQ(result.errors, "Failed to open firmware file " + path("absent") +
					 ": No such file or directory\n");
	EXPECT_TRUE(exists("out"));
	EXPECT_FALSE(exists("absent"));
}

TEST_F(FwTool, AnOutputThatCannotBeWrittenFails)
{
	const std::string firmware = write("firmware", with("-I", image, json));
	for (const std::string &out : {path("no/out"), "/dev/full"s}) {
		const RunResult result = fwtool({"-i", out, firmware});
		EXPECT_EQ(result.status.code, 1) << out;
		EXPECT_NE(result.errors, "") << out;
	}
}

TEST_F(FwTool, AppendsNoMoreThanARouterReads)
{
	struct {
		const char *option;
		std::size_t limit;
	} const cases[] = {{"-I", 30720}, {"-S", 1024}};
	for (const auto &[option, limit] : cases) {
		const std::string firmware = write("firmware", image);
		EXPECT_EQ(fwtool({option, write("data", std::string(limit + 1, 'd')), firmware})
				  .status.code,
			  1);
		EXPECT_EQ(read("firmware"), image) << option;
		EXPECT_EQ(fwtool({option, write("data", std::string(limit, 'd')), firmware})
				  .status.code,
			  0);
	}
	EXPECT_EQ(fwtool({"-I", path("absent"), path("firmware")}).status.code, 1);
}

} // namespace
