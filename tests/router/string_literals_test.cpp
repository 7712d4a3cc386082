// SPDX-License-Identifier: ISC
// The scanner behind texts_test.cpp: what it finds, and what it refuses to pass over.
#include <gtest/gtest.h>
#include <map>

#include "string_literals.h"

using namespace router_test;

namespace
{

std::vector<std::string> texts_in(std::string_view source)
{
	const LiteralScanner scanner(source);
	EXPECT_TRUE(scanner.problems.empty()) << source;
	std::vector<std::string> found;
	for (const Literal &literal : scanner.literals) {
		found.push_back(literal.text);
	}
	return found;
}

using Found = std::vector<std::string>;

} // namespace

TEST(TextsScanner, DecodesEscapes)
{
	const std::map<std::string, std::string> cases = {
		{R"("")", ""},
		{R"("plain")", "plain"},
		{R"("\a\b\f\n\r\t\v")", "\a\b\f\n\r\t\v"},
		{R"("a \"quoted\" \\ 'word' \?\'")", "a \"quoted\" \\ 'word' ?'"},
		{R"("tr -d '\" \r\n'")", "tr -d '\" \r\n'"},
		{R"("\x41\x7eg")", "A~g"},
		{R"("\101\0629\7")", "A29\a"},
		{R"("a\0b")", std::string("a\0b", 3)},
		{"\"goes \\\non\"", "goes on"},
	};
	for (const auto &[source, text] : cases) {
		EXPECT_EQ(texts_in(source), Found{text}) << source;
	}
}

TEST(TextsScanner, JoinsAdjacentLiterals)
{
	EXPECT_EQ(texts_in(R"(f("a" "b"  "c", "d");)"), (Found{"abc", "d"}));
	EXPECT_EQ(texts_in("\"a\"\n\t// between\n\t\"b\" /* \"no\" */ \"c\""), (Found{"abc"}));
	EXPECT_EQ(texts_in(R"("a"sv "b"s)"), (Found{"ab"}));
	EXPECT_EQ(texts_in(R"("a" NAME "b")"), (Found{"a", "b"}));
	EXPECT_EQ(texts_in(R"({"a"}, {"b"})"), (Found{"a", "b"}));
}

TEST(TextsScanner, SkipsWhatIsNoText)
{
	const std::vector<std::string> sources = {
		"// \"comment\"",
		"// \"comment\" \\\n \"goes on\"",
		"/* \"comment\"\n \"goes on\" */",
		"/**/",
		"#include \"file.h\"",
		"  #  include \"file.h\" // \"\"",
		"/* */ #include \"file.h\"",
		"#error \"don't\"\n",
		"#if 1'000 // \"\n#endif",
		"char c = '\"', d = '\\'', e = '\\\\', f = 'x';",
		"int n = 1'000'000, m = 0xff'ff;",
		"extern \"C\" {",
		"extern /* \"C\" */ \"C\" int f();",
		"a / b; // \"\"",
	};
	for (const std::string &source : sources) {
		EXPECT_EQ(texts_in(source), Found{}) << source;
	}
}

TEST(TextsScanner, GoesOnBehindWhatItSkipped)
{
	EXPECT_EQ(texts_in("'\"' \"a\""), Found{"a"});
	EXPECT_EQ(texts_in("1'000 \"a\""), Found{"a"});
	EXPECT_EQ(texts_in("// it's\n\"a\""), Found{"a"});
	EXPECT_EQ(texts_in("/* it's \" */\"a\""), Found{"a"});
	EXPECT_EQ(texts_in("#include \"no.h\"\n\"a\""), Found{"a"});
	EXPECT_EQ(texts_in("\"// a\" \"/* b\""), Found{"// a/* b"});
	EXPECT_EQ(texts_in("extern \"C\" { f(\"a\"); }"), Found{"a"});
	EXPECT_EQ(texts_in("extern const char a[]; f(\"a\")"), Found{"a"});
}

TEST(TextsScanner, LooksIntoMacros)
{
	EXPECT_EQ(texts_in("#define A \"a\"\n\"b\""), (Found{"a", "b"}));
	EXPECT_EQ(texts_in("#define A \"a\" \\\n\t\"b\"\n\"c\""), (Found{"ab", "c"}));
	EXPECT_EQ(texts_in("# define A(x) f(x, \"a\")"), Found{"a"});
}

TEST(TextsScanner, TellsTheLineThatALiteralBeginsIn)
{
	const LiteralScanner scanner(
		"// 1\n/* 2\n3 */ \"a\"\n\"b\"\n#define X \\\n \"c\"\n\n'\\n' \"d\"\n");
	EXPECT_EQ(scanner.literals, (std::vector<Literal>{{3, "ab"}, {6, "c"}, {8, "d"}}));
}

TEST(TextsScanner, ReportsWhatWouldHideAText)
{
	const std::map<std::string, LiteralProblem> cases = {
		{"\n R\"(raw)\"", {2, "literal with a prefix: R"}},
		{"u8\"a\"", {1, "literal with a prefix: u8"}},
		{"L\"a\"", {1, "literal with a prefix: L"}},
		{"return\"a\";", {1, "literal with a prefix: return"}},
		{"#define NAME(x) \\\n #x", {2, "# makes a text that is no literal"}},
		{"#define NAME(x) a##x", {1, "# makes a text that is no literal"}},
		{"\"\\u00e4\"", {1, "unknown escape \\u"}},
		{"\"\\q\"", {1, "unknown escape \\q"}},
		{"\"no end\n", {1, "quote without an end"}},
		{"\"no end", {1, "quote without an end"}},
		{"\"no end\\", {1, "quote without an end"}},
		{"'\n", {1, "quote without an end"}},
	};
	for (const auto &[source, problem] : cases) {
		const LiteralScanner scanner(source);
		ASSERT_FALSE(scanner.problems.empty()) << source;
		EXPECT_EQ(scanner.problems[0], problem) << scanner.problems[0].what;
	}
}
