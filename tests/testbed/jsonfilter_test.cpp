// SPDX-License-Identifier: ISC
#include "tool_test.h"

using router_test::run;
using router_test::RunResult;

namespace
{

constexpr int nothing_matched = 1;
constexpr int no_input = 125;
constexpr int not_json = 126;

constexpr std::string_view board = R"({
	"empty": "", "number": 42, "big": 9007199254740993, "double": 1.5, "yes": true,
	"nothing": null, "list": [ 1, "two", { "key": "value" } ],
	"release": { "revision": "r1234", "a blank": 1 }, "unicode": "h\u00e9\ud83d\ude00",
	"control": "a\tb\nc\"d\\e/f\u0001", "it": "it's" })";

class JsonFilter : public ToolTest
{
protected:
	static RunResult filter(std::string_view input, const std::vector<std::string> &options)
	{
		std::vector<std::string> words = {tool("jsonfilter")};
		words.insert(words.end(), options.begin(), options.end());
		return run(words, input);
	}
};

TEST_F(JsonFilter, PrintsWhatThePathLeadsTo)
{
	struct {
		const char *expression;
		const char *output;
	} const matches[] = {
		{"@.release.revision", "r1234"},
		{"@[\"release\"][\"revision\"]", "r1234"},
		{"@.release[\"a blank\"]", "1"},
		{"@.list[1]", "two"},
		{"@.list[2].key", "value"},
		{"@.list", "[ 1, \"two\", { \"key\": \"value\" } ]"},
		{"@.empty", ""},
		{"@.big", "9007199254740993"},
		{"@.double", "1.5"},
		{"@.yes", "true"},
		{"@.unicode", "h\u00e9\U0001f600"},
		{"@.control", "a\tb\nc\"d\\e/f\x01"},
	};
	for (const auto &[expression, output] : matches) {
		const RunResult result = filter(board, {"-e", expression});
		EXPECT_EQ(result.output, output + std::string("\n")) << expression;
		EXPECT_EQ(result.errors, "") << expression;
		EXPECT_EQ(result.status.code, 0) << expression;
	}
	EXPECT_EQ(filter(board, {"-t", "@.list", "-t", "@.empty", "-t", "@.yes"}).output,
		  "array\nstring\nboolean\n");
}

TEST_F(JsonFilter, AssignsShellVariables)
{
	EXPECT_EQ(filter(board, {"-e", "A=@.it", "-e", "b_2=@.number", "-e", "C=@.nothing", "-e",
				 "D=@.yes"})
			  .output,
		  R"(export A='it'"'"'s'; export b_2=42; export D=1; )");
}

TEST_F(JsonFilter, PrintsNothingAndFailsWhenNothingMatches)
{
	for (const char *expression : {"@.absent", "@.nothing", "@.empty.x", "@.number[0]",
				       "@.list[3]", "@.list.key", "@[0]"}) {
		const RunResult result = filter(board, {"-e", expression});
		EXPECT_EQ(result.output + result.errors, "") << expression;
		EXPECT_EQ(result.status.code, nothing_matched) << expression;
	}
	// One of several is enough.
	const RunResult result = filter(board, {"-e", "@.absent", "-e", "@.number"});
	EXPECT_EQ(result.output, "42\n");
	EXPECT_EQ(result.status.code, nothing_matched);
}

TEST_F(JsonFilter, ComplainsAboutMalformedExpressions)
{
	for (const char *expression : {"", "number", "@x", "@.", "@..x", "@.list[", "@.list[x]",
				       "@[\"release\"", "@.1", "@.a-b"}) {
		const RunResult result = filter(board, {"-e", expression});
		EXPECT_EQ(result.output, "") << expression;
		EXPECT_NE(result.errors.find("Syntax error"), std::string::npos) << expression;
		EXPECT_EQ(result.status.code, nothing_matched) << expression;
	}
}

TEST_F(JsonFilter, RefusesInputThatIsNotJson)
{
	for (const char *input : {"", " ", "nonsense", "{\"a\":1", "{a:1}", "{\"a\":tru}",
				  "{\"a\":\"x", "[1 2]", "<update/>"}) {
		const RunResult result = filter(input, {"-e", "@.a"});
		EXPECT_EQ(result.output, "") << input;
		EXPECT_NE(result.errors.find("Failed to parse json data: "), std::string::npos)
			<< input;
		EXPECT_EQ(result.status.code, not_json) << input;
		EXPECT_EQ(filter(input, {"-q", "-e", "@.a"}).errors, "") << input;
	}
}

TEST_F(JsonFilter, ReadsAFileOrTheTextOnItsCommandLine)
{
	const std::string file = write("metadata", "{\"supported_devices\":[\"MODEL-X\",\"Y\"]}");
	EXPECT_EQ(filter("", {"-i", file, "-e", "@[\"supported_devices\"]"}).output,
		  "[ \"MODEL-X\", \"Y\" ]\n");
	EXPECT_EQ(filter("", {"-s", "{\"a\":5}", "-e", "@.a"}).output, "5\n");

	const RunResult result = filter(board, {"-i", path("absent"), "-e", "@.number"});
	EXPECT_EQ(result.errors,
		  "Failed to open " + path("absent") + ": No such file or directory\n");
	EXPECT_EQ(result.status.code, no_input);
}

} // namespace
