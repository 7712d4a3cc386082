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
	"board_name": "qor,model-x", "empty": "", "number": 42, "negative": -7,
	"big": 9007199254740993, "double": 1.5, "exponent": 1e30, "whole": 3.0,
	"yes": true, "no": false, "nothing": null, "no_list": [], "no_table": {},
	"list": [ 1, "two", [ 3, 4.5, null ], { "key": "value", "none": {} } ],
	"release": { "revision": "r1234", "deep": { "er": "x" } },
	"unicode": "h\u00e9\u4e2d\ud83d\ude00", "control": "a\tb\nc\"d\\e/f\u0001",
	"cut": "x\u0000y", "a blank": 1, "quote\"d": 2, "it's": 3, "0": "zero" })";

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

struct Match {
	const char *expression;
	const char *output;
};

TEST_F(JsonFilter, PrintsWhatThePathLeadsTo)
{
	const Match matches[] = {
		{"@.board_name", "qor,model-x"},
		{"$.board_name", "qor,model-x"},
		{"@[\"release\"][\"revision\"]", "r1234"},
		{"@['release'].deep['er']", "x"},
		{" @ . release [ \"revision\" ] ", "r1234"},
		{"@.list[0]", "1"},
		{"@.list[1]", "two"},
		{"@.list[-1].key", "value"},
		{"@.list[-4]", "1"},
		{"@.list[2][ 1 ]", "4.5"},
		{"@[\"a blank\"]", "1"},
		{"@[\"quote\\\"d\"]", "2"},
		{"@[\"it's\"]", "3"},
		{"@['it\\'s']", "3"},
		{"@[\"0\"]", "zero"},
	};
	for (const Match &match : matches) {
		const RunResult result = filter(board, {"-e", match.expression});
		EXPECT_EQ(result.output, match.output + std::string("\n")) << match.expression;
		EXPECT_EQ(result.errors, "") << match.expression;
		EXPECT_EQ(result.status.code, 0) << match.expression;
	}
}

TEST_F(JsonFilter, PrintsEachTypeInItsOwnWay)
{
	const Match matches[] = {
		{"@.empty", ""},
		{"@.number", "42"},
		{"@.negative", "-7"},
		{"@.big", "9007199254740993"},
		{"@.double", "1.5"},
		{"@.exponent", "1e30"},
		{"@.whole", "3.0"},
		{"@.yes", "true"},
		{"@.no", "false"},
		{"@.no_list", "[ ]"},
		{"@.no_table", "{ }"},
		{"@.list", "[ 1, \"two\", [ 3, 4.5, null ], { \"key\": \"value\", "
			   "\"none\": { } } ]"},
		{"@.release", "{ \"revision\": \"r1234\", \"deep\": { \"er\": \"x\" } }"},
		{"@.unicode", "h\u00e9\u4e2d\U0001f600"},
		{"@.control", "a\tb\nc\"d\\e/f\x01"},
		{"@.cut", "x"},
	};
	for (const Match &match : matches) {
		const RunResult result = filter(board, {"-e", match.expression});
		EXPECT_EQ(result.output, match.output + std::string("\n")) << match.expression;
		EXPECT_EQ(result.status.code, 0) << match.expression;
	}
}

TEST_F(JsonFilter, AssignsShellVariables)
{
	const Match matches[] = {
		{"V=@.board_name", "'qor,model-x'"},
		{" v_2 = @.empty", "''"},
		{"V=@.control", "'a\tb\nc\"d\\e/f\x01'"},
		{"V=@.number", "42"},
		{"V=@.double", "1.500000"},
		{"V=@.yes", "1"},
		{"V=@.no", "0"},
		{"V=@.list", "0\\ 1\\ 2\\ 3"},
		{"V=@.release", "'revision'\\ 'deep'"},
	};
	for (const Match &match : matches) {
		const RunResult result = filter(board, {"-e", match.expression});
		const std::string name = match.expression[0] == ' ' ? "v_2" : "V";
		EXPECT_EQ(result.output, "export " + name + "=" + match.output + "; ")
			<< match.expression;
		EXPECT_EQ(result.status.code, 0) << match.expression;
	}
	EXPECT_EQ(filter("{\"a\": \"it's\"}", {"-e", "V=@.a"}).output, R"(export V='it'"'"'s'; )");
	EXPECT_EQ(filter(board, {"-e", "V=@.missing"}).output, "");
}

TEST_F(JsonFilter, NamesTypes)
{
	EXPECT_EQ(filter(board, {"-t", "@.yes", "-t", "@.empty", "-t", "@.number", "-t", "@.double",
				 "-t", "@.list", "-t", "@.release", "-t", "T=@.no"})
			  .output,
		  "boolean\nstring\nint\ndouble\narray\nobject\nexport T=boolean; ");
}

TEST_F(JsonFilter, EscapesStringsInsideLists)
{
	const RunResult result = filter(R"([ "a\tb\"c\\d\u0001", "h\u00e9" ])", {"-e", "@"});
	EXPECT_EQ(result.output, "[ \"a\\tb\\\"c\\\\d\\u0001\", \"h\u00e9\" ]\n");
}

TEST_F(JsonFilter, PrintsNothingAndFailsWhenNothingMatches)
{
	for (const char *expression :
	     {"@.absent", "@.nothing", "@.board_name.x", "@.number[0]", "@.list[4]", "@.list[-5]",
	      "@.list.key", "@.list[\"0\"]", "@[0]", "@[\"\"]", "@.list[2][2]", "@.yes.x",
	      "@.list[-99999999999]", "@.list[99999999999]"}) {
		const RunResult result = filter(board, {"-e", expression});
		EXPECT_EQ(result.output, "") << expression;
		EXPECT_EQ(result.errors, "") << expression;
		EXPECT_EQ(result.status.code, nothing_matched) << expression;
	}
}

TEST_F(JsonFilter, ComplainsAboutMalformedExpressions)
{
	for (const char *expression : {"",
				       " ",
				       "number",
				       "@x",
				       "@.",
				       "@..x",
				       "@.list[",
				       "@.list[1",
				       "@.list[1]]",
				       "@.list[+1]",
				       "@.list[1.0]",
				       "@.list[x]",
				       "@[board_name]",
				       "@[\"board_name]",
				       "@[\"board_name\"",
				       "@[\"board_name\\",
				       "@.1",
				       "@.a-b",
				       "@.\"number\"",
				       "@@"}) {
		const RunResult result = filter(board, {"-e", expression});
		EXPECT_EQ(result.output, "") << expression;
		EXPECT_NE(result.errors.find("Syntax error"), std::string::npos) << expression;
		EXPECT_EQ(result.status.code, nothing_matched) << expression;
	}
}

TEST_F(JsonFilter, RefusesInputThatIsNotJson)
{
	for (const char *input : {"", " ", "nonsense", "{\"a\":1", "{a:1}", "{\"a\" 1}",
				  "{\"a\":tru}", "{\"a\":\"x", "{\"a\":\"\\x\"}", "[1 2]", "[", "-",
				  "5", "null ", "\xef\xbb\xbf{\"a\":1}", "<update/>"}) {
		const RunResult result = filter(input, {"-e", "@.a"});
		EXPECT_EQ(result.output, "") << input;
		EXPECT_NE(result.errors.find("Failed to parse json data: "), std::string::npos)
			<< input;
		EXPECT_EQ(result.status.code, not_json) << input;
	}
}

TEST_F(JsonFilter, PrintsOneLineForEachExpression)
{
	const RunResult result = filter(board, {"-e", "@.number", "-e", "@.board_name"});
	EXPECT_EQ(result.output, "42\nqor,model-x\n");
	EXPECT_EQ(result.status.code, 0);
}

TEST_F(JsonFilter, FailsWhenOneExpressionOfSeveralMatchesNothing)
{
	for (const std::vector<std::string> &options :
	     {std::vector<std::string>{"-e", "@.absent", "-e", "@.number"},
	      {"-e", "@.number", "-e", "@.absent"},
	      {"-e", "@.[", "-e", "@.number"}}) {
		const RunResult result = filter(board, options);
		EXPECT_EQ(result.output, "42\n");
		EXPECT_EQ(result.status.code, nothing_matched);
	}
}

TEST_F(JsonFilter, ReadsTheFile)
{
	const std::string file = write("metadata", "{\"supported_devices\":[\"MODEL-X\",\"Y\"]}");
	const RunResult result = filter("", {"-i", file, "-e", "@[\"supported_devices\"]"});
	EXPECT_EQ(result.output, "[ \"MODEL-X\", \"Y\" ]\n");
	EXPECT_EQ(result.status.code, 0);
}

TEST_F(JsonFilter, NamesTheFileItCannotOpen)
{
	const RunResult result = filter(board, {"-i", path("absent"), "-e", "@.number"});
	EXPECT_EQ(result.output, "");
	EXPECT_EQ(result.errors,
		  "Failed to open " + path("absent") + ": No such file or directory\n");
	EXPECT_EQ(result.status.code, no_input);
}

TEST_F(JsonFilter, ReadsTheTextOnItsCommandLine)
{
	EXPECT_EQ(filter("", {"-s", "{\"a\":[5]}", "-e", "@.a[0]"}).output, "5\n");
}

} // namespace
