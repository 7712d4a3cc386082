// SPDX-License-Identifier: ISC
// The texts of the daemon, byte for byte: the program and its source against texts_table.h.
#include <algorithm>
#include <elf.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <link.h>
#include <regex>
#include <set>

#include "support/daemon.h"
#include "support/router_files.h"
#include "texts_table.h"

using namespace router_test;

namespace
{

// The text as a source file would hold it.
std::string as_written(std::string_view text)
{
	std::string result = "\"";
	for (const char byte : text) {
		switch (byte) {
		case '\n':
			result += "\\n";
			break;
		case '\r':
			result += "\\r";
			break;
		case '"':
			result += "\\\"";
			break;
		default:
			result += byte;
		}
	}
	return result + '"';
}

std::string description(const Text &text)
{
	return std::string(text.kind) + ' ' + as_written(text.text) + " (" + std::string(text.use) +
	       ')';
}

// What the program holds as constants, without code, symbols and debug information, in which a
// name of the source may look like a text.
std::string constants_of(const std::string &program)
{
	if (program.size() < sizeof(ElfW(Ehdr))) {
		return "";
	}
	const auto *header = reinterpret_cast<const ElfW(Ehdr) *>(program.data());
	const auto *sections =
		reinterpret_cast<const ElfW(Shdr) *>(program.data() + header->e_shoff);
	std::string constants;
	for (int i = 0; i < header->e_shnum; i++) {
		const auto &section = sections[i];
		if (section.sh_type == SHT_PROGBITS && (section.sh_flags & SHF_ALLOC) != 0 &&
		    (section.sh_flags & (SHF_WRITE | SHF_EXECINSTR)) == 0) {
			constants.append(program, section.sh_offset, section.sh_size);
		}
	}
	return constants;
}

// The literals of the source, as they are written. Each stands on one line; what is adjacent to
// another one, or has a prefix, is in no table and is found.
std::set<std::string> literals_of_the_source()
{
	const std::regex skipped_or_literal(
		R"(//[^\n]*|#include[^\n]*|extern "C"|'(\\.|[^'\\])'|"(\\.|[^"\\])*")");
	std::set<std::string> literals;
	for (const auto &entry :
	     std::filesystem::recursive_directory_iterator(FWUPDATE_SOURCE_DIR)) {
		const std::string extension = entry.path().extension();
		if (extension != ".cpp" && extension != ".h") {
			continue;
		}
		const std::string text = read_file(entry.path());
		for (std::sregex_iterator found(text.begin(), text.end(), skipped_or_literal), none;
		     found != none; ++found) {
			if (found->str().starts_with('"')) {
				literals.insert(found->str());
			}
		}
	}
	return literals;
}

} // namespace

TEST(Texts, EachIsInTheTableOnce)
{
	std::set<std::string_view> seen;
	for (const Text &text : texts) {
		EXPECT_TRUE(seen.insert(text.text).second) << description(text);
	}
}

TEST(Texts, StandInTheProgramAsInTheTable)
{
	const std::string constants = constants_of(read_file(daemon_path));
	ASSERT_FALSE(constants.empty()) << daemon_path << " cannot be read";
	for (const Text &text : texts) {
		if (text.whole == Whole::in_program) {
			EXPECT_NE(constants.find(std::string(text.text) + '\0'), std::string::npos)
				<< description(text) << " is not in the program";
		}
	}
}

TEST(Texts, ProgramHoldsAnHttpManifestUrl)
{
	const std::string constants = constants_of(read_file(daemon_path));
	const std::size_t path = constants.find(std::string("/update.xml") + '\0');
	ASSERT_NE(path, std::string::npos);
	const std::string url = constants.substr(constants.find_last_of('\0', path) + 1);
	EXPECT_TRUE(url.starts_with("http://")) << url.c_str();
}

TEST(Texts, OfTheSourceAreThoseOfTheTable)
{
	std::set<std::string> expected;
	for (const Text &text : texts) {
		expected.insert(as_written(text.text));
	}
	EXPECT_EQ(literals_of_the_source(), expected);
}
