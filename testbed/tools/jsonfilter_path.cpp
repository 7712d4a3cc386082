// SPDX-License-Identifier: ISC
#include "jsonfilter_path.h"

#include <charconv>
#include <json-c/json.h>
#include <utility>

namespace jsonfilter
{

namespace
{

// Not <cctype>: a name has the same letters in every locale.
bool is_letter(char c)
{
	return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool is_digit(char c)
{
	return c >= '0' && c <= '9';
}

char unescaped(char c)
{
	switch (c) {
	case 'n':
		return '\n';
	case 't':
		return '\t';
	case 'r':
		return '\r';
	default:
		return c;
	}
}

class Parser
{
public:
	explicit Parser(std::string_view expression) : text_(expression)
	{
	}

	Path parse()
	{
		skip_blanks();
		parse_label();
		if (!accept('@') && !accept('$')) {
			fail("expected '@' or '$'");
		}
		for (skip_blanks(); !failed() && at_ < text_.size(); skip_blanks()) {
			parse_step();
		}
		return std::move(path_);
	}

private:
	bool failed() const
	{
		return !path_.problem.empty();
	}

	void fail(const char *problem)
	{
		path_.problem = problem;
		path_.position = at_;
	}

	bool accept(char c)
	{
		if (at_ == text_.size() || text_[at_] != c) {
			return false;
		}
		at_++;
		return true;
	}

	void skip_blanks()
	{
		while (accept(' ') || accept('\t') || accept('\n') || accept('\r')) {
		}
	}

	void parse_label()
	{
		if (at_ == text_.size() || !is_letter(text_[at_])) {
			return;
		}
		path_.label = read_name();
		skip_blanks();
		if (!accept('=')) {
			fail("expected '='");
		}
		skip_blanks();
	}

	void parse_step()
	{
		if (accept('.')) {
			skip_blanks();
			parse_name();
		} else if (accept('[')) {
			skip_blanks();
			parse_bracket();
		} else {
			fail("expected '.', '[' or the end");
		}
	}

	std::string read_name()
	{
		const std::size_t start = at_;
		while (at_ < text_.size() &&
		       (is_letter(text_[at_]) || (at_ > start && is_digit(text_[at_])))) {
			at_++;
		}
		return std::string(text_.substr(start, at_ - start));
	}

	void parse_name()
	{
		std::string name = read_name();
		if (name.empty()) {
			fail("expected a name");
			return;
		}
		path_.steps.emplace_back(std::move(name));
	}

	void parse_bracket()
	{
		if (accept('"')) {
			parse_string('"');
		} else if (accept('\'')) {
			parse_string('\'');
		} else {
			parse_place();
		}
		if (failed()) {
			return;
		}
		skip_blanks();
		if (!accept(']')) {
			fail("expected ']'");
		}
	}

	void parse_string(char quote)
	{
		std::string name;
		while (!accept(quote)) {
			const bool escaped = accept('\\');
			if (at_ == text_.size()) {
				fail("the string does not end");
				return;
			}
			const char c = text_[at_++];
			name += escaped ? unescaped(c) : c;
		}
		path_.steps.emplace_back(std::move(name));
	}

	void parse_place()
	{
		std::int64_t place = 0;
		const char *end = text_.data() + text_.size();
		const auto [next, error] = std::from_chars(text_.data() + at_, end, place);
		if (error != std::errc()) {
			fail("expected a string or an array place");
			return;
		}
		at_ = static_cast<std::size_t>(next - text_.data());
		path_.steps.emplace_back(place);
	}

	std::string_view text_;
	std::size_t at_ = 0;
	Path path_;
};

json_object *member(json_object *value, const std::string &name)
{
	json_object *found = nullptr;
	json_object_object_get_ex(value, name.c_str(), &found);
	return found;
}

json_object *element(json_object *value, std::int64_t place)
{
	const auto length = static_cast<std::int64_t>(json_object_array_length(value));
	if (place < 0) {
		place += length;
	}
	if (place < 0 || place >= length) {
		return nullptr;
	}
	return json_object_array_get_idx(value, static_cast<std::size_t>(place));
}

} // namespace

Path parse_path(std::string_view expression)
{
	return Parser(expression).parse();
}

json_object *follow(json_object *document, const Path &path)
{
	json_object *value = document;
	for (const Step &step : path.steps) {
		const auto *name = std::get_if<std::string>(&step);
		if (!json_object_is_type(value, name ? json_type_object : json_type_array)) {
			return nullptr;
		}
		value = name ? member(value, *name) : element(value, std::get<std::int64_t>(step));
	}
	return value;
}

} // namespace jsonfilter
