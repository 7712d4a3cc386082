// SPDX-License-Identifier: ISC
#include "firmware_maker.h"

using namespace firmware;
using namespace std::string_literals;
using router_test::run;
using router_test::RunResult;

namespace
{

TEST_F(FwTool, AppendsTheFormatByteForByte)
{
	// 340bc6d9 is the inverse of CRC-32's published check value of these nine digits.
	const std::string firmware = write("firmware", "123456789");
	EXPECT_EQ(fwtool({"-S", write("empty", ""), firmware}).status.code, 0);
	EXPECT_EQ(read("firmware"), "123456789FWx0\x34\x0b\xc6\xd9\0\0\0\0\0\0\0\x10"s);

	write("firmware", image);
	EXPECT_EQ(fwtool({"-I", write("json", json), firmware}).status.code, 0);
	EXPECT_EQ(read("firmware"), with_metadata(image));
	EXPECT_EQ(fwtool({"-S", write("signature", "SIGNED"), firmware}).status.code, 0);
	EXPECT_EQ(read("firmware"), with_signature(with_metadata(image), "SIGNED"));
}

TEST_F(FwTool, ExtractsMetadata)
{
	const RunResult result = extract("-i", with_metadata(image));
	EXPECT_EQ(result.status.code, 0);
	EXPECT_EQ(result.errors, "");
	EXPECT_EQ(read("out"), json);
	EXPECT_EQ(read("firmware"), with_metadata(image));
}

TEST_F(FwTool, ExtractsASignature)
{
	EXPECT_EQ(extract("-s", with_signature(image, "SIGNED")).status.code, 0);
	EXPECT_EQ(read("out"), "SIGNED");
}

TEST_F(FwTool, FindsTheChunkInAnyStackThatHasIt)
{
	struct {
		const char *option;
		std::string firmware;
		std::string data;
	} const cases[] = {
		{"-i", with_signature(with_metadata(image), "S"), json},
		{"-s", with_signature(with_metadata(image), "S"), "S"},
		{"-i", with_metadata(with_metadata(image), "{}"), "{}"},
		{"-i", with_metadata(with_signature(image, "S"), "{}"), "{}"},
		{"-i", with_chunk(with_metadata(image), {.content = "?", .type = 2}), json},
		{"-i", with_metadata("i"), json},
		{"-i", with_metadata(image, ""), ""},
		{"-s", with_signature(image, ""), ""},
		{"-i", with_metadata(image, std::string(32752 - 24, 'x')),
		 std::string(32752 - 24, 'x')},
		// A header of a version to come is not understood, the one below is.
		{"-i", with_chunk(with_metadata(image), {.content = be32(1) + be32(0) + "new"}),
		 json},
		// Flags and the trailer's spare bytes mean nothing yet.
		{"-i", with_chunk(image, {.content = be32(0) + be32(7) + json}), json},
	};
	for (const auto &[option, firmware, data] : cases) {
		const RunResult result = extract(option, firmware);
		EXPECT_EQ(result.status.code, 0) << result.errors;
		EXPECT_EQ(read("out"), data);
	}
}

TEST_F(FwTool, TruncateCutsTheChunkAndAllAboveIt)
{
	const std::string stacked = with_signature(with_metadata(image), "S");
	EXPECT_EQ(fwtool({"-t", "-s", path("out"), write("firmware", stacked)}).status.code, 0);
	EXPECT_EQ(read("firmware"), with_metadata(image));
	EXPECT_EQ(fwtool({"-t", "-i", path("out"), write("firmware", stacked)}).status.code, 0);
	EXPECT_EQ(read("firmware"), image);
	EXPECT_EQ(read("out"), json);
}

TEST_F(FwTool, PrintsWhatIsLeftWithoutTheChunk)
{
	const std::string stacked = with_signature(with_metadata(image), "S");
	const RunResult unsigned_image =
		fwtool({"-T", "-s", "/dev/null", write("firmware", stacked)});
	EXPECT_EQ(unsigned_image.status.code, 0);
	EXPECT_EQ(unsigned_image.output, with_metadata(image));
	EXPECT_EQ(fwtool({"-T", "-i", path("out"), path("firmware")}).output, image);
	EXPECT_EQ(read("firmware"), stacked);

	const RunResult without = fwtool({"-T", "-s", path("out"), write("firmware", image)});
	EXPECT_EQ(without.status.code, 1);
	EXPECT_EQ(without.output, "");
}

TEST_F(FwTool, DashIsStandardOutputAndInput)
{
	const RunResult result = fwtool({"-i", "-", write("firmware", with_metadata(image))});
	EXPECT_EQ(result.status.code, 0);
	EXPECT_EQ(result.output, json);
	EXPECT_EQ(run({tool("fwtool"), "-I", "-", write("firmware", image)}, json).status.code, 0);
	EXPECT_EQ(read("firmware"), with_metadata(image));
}

TEST_F(FwTool, QuietPrintsNoErrors)
{
	const RunResult result = fwtool({"-q", "-i", path("out"), write("firmware", image)});
	EXPECT_EQ(result.status.code, 1);
	EXPECT_EQ(result.errors, "");
	EXPECT_EQ(fwtool({"-i", path("out"), "-q", path("absent")}).errors, "");
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

TEST_F(FwTool, AnOutputThatCannotBeCreatedFails)
{
	const RunResult result =
		fwtool({"-t", "-i", path("no/out"), write("firmware", with_metadata(image))});
	EXPECT_EQ(result.status.code, 1);
	EXPECT_NE(result.errors, "");
	EXPECT_EQ(read("firmware"), with_metadata(image));
}

TEST_F(FwTool, AnOutputThatIsFullFails)
{
	const RunResult result =
		fwtool({"-t", "-i", "/dev/full", write("firmware", with_metadata(image))});
	EXPECT_EQ(result.status.code, 1);
	EXPECT_NE(result.errors, "");
	EXPECT_EQ(read("firmware"), with_metadata(image));
}

TEST_F(FwTool, TheFirmwareIsNeverItsOwnOutput)
{
	const std::string firmware = write("firmware", with_metadata(image));
	for (const char *option : {"-i", "-s", "-I", "-S"}) {
		const RunResult result = fwtool({option, firmware, firmware});
		EXPECT_EQ(result.status.code, 1) << option;
		EXPECT_NE(result.errors, "") << option;
		EXPECT_EQ(read("firmware"), with_metadata(image)) << option;
	}
}

TEST_F(FwTool, OnlyRegularFilesAreFirmware)
{
	for (const std::string &firmware : {"/dev/null"s, "/dev/zero"s, path()}) {
		const RunResult result = fwtool({"-i", path("out"), firmware});
		EXPECT_EQ(result.status.code, 1) << firmware;
		EXPECT_NE(result.errors, "") << firmware;
	}
}

TEST_F(FwTool, RefusesToAppendTooMuch)
{
	struct {
		const char *option;
		const char *back;
		std::size_t limit;
	} const cases[] = {{"-I", "-i", 30720}, {"-S", "-s", 1024}};
	for (const auto &[option, back, limit] : cases) {
		const std::string data(limit, 'd');
		const std::string firmware = write("firmware", image);
		EXPECT_EQ(fwtool({option, write("data", data + "d"), firmware}).status.code, 1);
		EXPECT_EQ(read("firmware"), image) << option;
		EXPECT_EQ(fwtool({option, write("data", data), firmware}).status.code, 0) << option;
		EXPECT_EQ(fwtool({back, path("out"), firmware}).status.code, 0) << option;
		EXPECT_EQ(read("out"), data) << option;
	}
}

TEST_F(FwTool, AppendingWhatIsNotThereChangesNothing)
{
	const std::string firmware = write("firmware", image);
	EXPECT_EQ(fwtool({"-I", path("absent"), firmware}).status.code, 1);
	EXPECT_EQ(fwtool({"-I", path(), firmware}).status.code, 1);
	EXPECT_EQ(read("firmware"), image);
	EXPECT_EQ(fwtool({"-I", firmware, path("absent")}).status.code, 1);
	EXPECT_FALSE(exists("absent"));
}

TEST_F(FwTool, HandlesTheLargestFirmware)
{
	std::string large(24 << 20, '\0');
	for (std::size_t i = 0; i < large.size(); i++) {
		large[i] = static_cast<char>(i * 2654435761U >> 16);
	}
	const std::string firmware = write("firmware", large);
	EXPECT_EQ(fwtool({"-I", write("json", json), firmware}).status.code, 0);
	EXPECT_TRUE(read("firmware") == with_metadata(large));
	EXPECT_EQ(fwtool({"-t", "-i", path("out"), firmware}).status.code, 0);
	EXPECT_EQ(read("out"), json);
	EXPECT_TRUE(read("firmware") == large);
}

// Sparse, so that only its size is large. 32 bits have no addresses for it.
TEST_F(FwTool, AFileLargerThanAddressesGoIsAnError)
{
	constexpr std::uintmax_t size = (std::uintmax_t{5} << 30) + 1000;
	const std::string firmware = write("firmware", image);
	std::filesystem::resize_file(firmware, size);
	const RunResult result = fwtool({"-i", path("out"), firmware});
	EXPECT_EQ(result.status.code, 1) << "signal " << result.status.signal;
	EXPECT_EQ(result.errors, sizeof(void *) > 4
					 ? "Data not found\n"
					 : "Failed to read " + firmware + ": File too large\n");
}

TEST_F(FwTool, ExplainsItsUse)
{
	const std::string firmware = write("firmware", with_metadata(image));
	for (const std::vector<std::string> &options : std::vector<std::vector<std::string>>{
		     {},
		     {firmware},
		     {firmware, "-i", path("out")}, // options come first
		     {"-t", firmware},
		     {"-z", firmware},
		     {"-i"},
		     {"-i", path("out")},
		     {"-i", path("out"), "-s", path("out"), firmware},
		     {"-i", path("out"), "-i", path("out"), firmware},
		     {"-i", path("out"), "-I", path("json"), firmware},
		     {"-i", path("out"), firmware, firmware}}) {
		const RunResult result = fwtool(options);
		EXPECT_EQ(result.status.code, 1);
		EXPECT_NE(result.errors.find("Usage: "), std::string::npos);
	}
	EXPECT_FALSE(exists("out"));
	EXPECT_EQ(read("firmware"), with_metadata(image));
}

} // namespace
