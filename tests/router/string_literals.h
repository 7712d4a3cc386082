// SPDX-License-Identifier: ISC
// Finds the string literals in C++ text, decoded, as the compiler would put them into the program.
// Used by the test that holds the daemon's texts to their table. Knows as much C++ as that takes;
// what would make a text that it cannot see (raw and prefixed literals, # in a macro, an unknown
// escape) is reported as a problem instead of being passed over.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace router_test
{

struct Literal {
	int line;
	std::string text; // adjacent literals joined, escapes decoded
	bool operator==(const Literal &) const = default;
};

struct LiteralProblem {
	int line;
	std::string what;
	bool operator==(const LiteralProblem &) const = default;
};

class LiteralScanner
{
public:
	explicit LiteralScanner(std::string_view source) : source_(source)
	{
		while (!at_end()) {
			step();
		}
	}

	std::vector<Literal> literals;
	std::vector<LiteralProblem> problems;

private:
	static constexpr std::string_view digits = "0123456789";
	static constexpr std::string_view word_bytes =
		"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";

	static bool among(char byte, std::string_view bytes)
	{
		return bytes.find(byte) != std::string_view::npos;
	}
	bool at_end() const
	{
		return position_ >= source_.size();
	}
	bool at(std::string_view text) const
	{
		return source_.substr(position_).starts_with(text);
	}
	char take()
	{
		const char byte = source_[position_++];
		if (byte == '\n') {
			line_++;
			line_is_blank_ = true;
			in_directive_ = false;
		}
		return byte;
	}
	void problem(const std::string &what)
	{
		problems.push_back({line_, what});
	}

	void step()
	{
		if (skip_blanks()) {
			return;
		}
		const bool first_of_line = line_is_blank_;
		line_is_blank_ = false;
		if (at("#")) {
			read_hash(first_of_line);
		} else if (at("\"")) {
			read_literals();
		} else if (at("'")) {
			read_quoted();
		} else if (among(source_[position_], word_bytes)) {
			read_word();
		} else {
			take();
		}
	}

	// White space, comments and lines that go on behind a backslash.
	bool skip_blanks()
	{
		const std::size_t start = position_;
		while (!at_end()) {
			if (at("\\\n")) {
				skip_continuation();
			} else if (at("//")) {
				skip_line();
			} else if (at("/*")) {
				skip_past("*/");
			} else if (among(source_[position_], " \t\r\n")) {
				take();
			} else {
				break;
			}
		}
		return position_ != start;
	}
	void skip_continuation()
	{
		position_ += 2;
		line_++;
	}
	void skip_line()
	{
		while (!at_end() && !at("\n")) {
			if (at("\\\n")) {
				skip_continuation();
			} else {
				take();
			}
		}
	}
	void skip_past(std::string_view end)
	{
		const bool directive = in_directive_;
		const bool blank = line_is_blank_;
		while (!at_end() && !at(end)) {
			take();
		}
		position_ += end.size();
		in_directive_ = directive; // a comment counts as one blank, however long
		line_is_blank_ = blank;
	}

	// Only the text of a macro can hold literals; the rest of a directive is names and numbers.
	void read_hash(bool first_of_line)
	{
		take();
		if (!first_of_line) {
			problem("# makes a text that is no literal");
			return;
		}
		in_directive_ = true;
		while (at(" ") || at("\t")) {
			take();
		}
		if (!at("define")) {
			skip_line();
		}
	}

	// A number takes its separators along: 1'000'000 quotes nothing.
	void read_word()
	{
		const std::size_t start = position_;
		const bool number = among(source_[start], digits);
		while (!at_end() &&
		       (among(source_[position_], word_bytes) || (number && at("'")))) {
			take();
		}
		const std::string_view word = source_.substr(start, position_ - start);
		if (at("\"")) {
			problem("literal with a prefix: " + std::string(word));
			read_quoted();
		} else if (word == "extern" && skip_blanks() && at("\"C\"")) {
			read_quoted(); // says how names are linked; no text
		}
	}

	void read_literals()
	{
		Literal literal = {line_, read_quoted()};
		for (;;) {
			while (!at_end() && among(source_[position_], word_bytes)) {
				take(); // a suffix as in "text"sv
			}
			const bool directive = in_directive_;
			skip_blanks();
			if (!at("\"") || in_directive_ != directive) {
				break;
			}
			literal.text += read_quoted();
		}
		literals.push_back(literal);
	}

	// From a quote to its like.
	std::string read_quoted()
	{
		std::string text;
		const char quote = take();
		while (!at_end() && !at("\n")) {
			if (at("\\\n")) {
				skip_continuation();
				continue;
			}
			const char byte = take();
			if (byte == quote) {
				return text;
			}
			text += byte == '\\' ? read_escape() : byte;
		}
		problem("quote without an end");
		return text;
	}
	char read_escape()
	{
		static constexpr std::string_view names = "abfnrtv\\'\"?";
		static constexpr std::string_view values = "\a\b\f\n\r\t\v\\'\"?";
		if (at_end()) {
			return '\\';
		}
		const char byte = source_[position_];
		if (among(byte, "01234567")) {
			return read_number("01234567", 8, 3);
		}
		take();
		if (byte == 'x') {
			return read_number("0123456789abcdefABCDEF", 16, 2);
		}
		const std::size_t index = names.find(byte);
		if (index == std::string_view::npos) {
			problem(std::string("unknown escape \\") + byte);
			return byte;
		}
		return values[index];
	}
	char read_number(std::string_view allowed, int base, std::size_t most)
	{
		std::string number;
		while (!at_end() && number.size() < most && among(source_[position_], allowed)) {
			number += take();
		}
		return static_cast<char>(number.empty() ? 0 : std::stoi(number, nullptr, base));
	}

	std::string_view source_;
	std::size_t position_ = 0;
	int line_ = 1;
	bool line_is_blank_ = true;
	bool in_directive_ = false;
};

} // namespace router_test
