// SPDX-License-Identifier: ISC
// jsonfilter: prints the values of a JSON text that path expressions lead to. An expression is
// `NAME=` for a shell variable or nothing, `@`, then members (`.name`, `["name"]`)
// and places in lists (`[0]`).
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <json-c/json.h>
#include <memory>
#include <regex>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

enum ExitCode : int {
	all_matched = 0,
	nothing_matched = 1, // at least one expression led nowhere or was malformed
	no_input = 125,
	not_json = 126,
};

struct JsonDeleter {
	void operator()(json_object *object) const
	{
		json_object_put(object);
	}
	void operator()(json_tokener *tokener) const
	{
		json_tokener_free(tokener);
	}
};
using Json = std::unique_ptr<json_object, JsonDeleter>;

struct Step {
	std::string member; // or, when it is empty:
	std::size_t place = 0;
};

struct Path {
	std::string label; // the shell variable that gets the value, or empty
	std::vector<Step> steps;
};

bool quiet = false;

int usage(const char *program)
{
	fprintf(stderr, "Usage: %s [-q] [-i FILE | -s JSON] {-e | -t} [NAME=]EXPRESSION...\n",
		program);
	return nothing_matched;
}

std::string read_all(std::istream &stream)
{
	return {std::istreambuf_iterator<char>(stream), {}};
}

// The first JSON value of the text; what follows it is not looked at. The terminating zero is
// withheld from the tokener, so that a bare number which the text's end cuts off is refused.
Json parse_json(const std::string &text)
{
	const std::unique_ptr<json_tokener, JsonDeleter> tokener(json_tokener_new());
	Json document(
		json_tokener_parse_ex(tokener.get(), text.data(), static_cast<int>(text.size())));
	if (!document && !quiet) {
		const json_tokener_error error = json_tokener_get_error(tokener.get());
		fprintf(stderr, "Failed to parse json data: %s\n",
			error == json_tokener_continue ? "unexpected end of data"
						       : json_tokener_error_desc(error));
	}
	return document;
}

// False when the expression is malformed.
bool parse_path(const std::string &expression, Path &path)
{
	static const std::regex whole(
		R"x((?:([A-Za-z_]\w*)=)?@((?:\.[A-Za-z_]\w*|\["[^"\\]+"\]|\[\d{1,9}\])*))x");
	static const std::regex step(R"x(\.(\w+)|\["([^"]+)"\]|\[(\d+)\])x");
	std::smatch found;
	if (!std::regex_match(expression, found, whole)) {
		return false;
	}
	path.label = found[1];
	const std::string steps = found[2];
	for (std::sregex_iterator at(steps.begin(), steps.end(), step), end; at != end; ++at) {
		const std::smatch &parts = *at;
		path.steps.push_back(
			{parts.str(1) + parts.str(2), parts[3].matched ? std::stoul(parts[3]) : 0});
	}
	return true;
}

// Owned by the document; nullptr for a JSON null too, which counts as no value.
json_object *follow(json_object *value, const Path &path)
{
	for (const Step &step : path.steps) {
		if (!step.member.empty()) {
			json_object_object_get_ex(value, step.member.c_str(), &value);
		} else if (json_object_is_type(value, json_type_array)) {
			value = json_object_array_get_idx(value, step.place);
		} else {
			value = nullptr;
		}
	}
	return value;
}

std::string quoted(const std::string &text)
{
	return "'" + std::regex_replace(text, std::regex("'"), "'\"'\"'") + "'";
}

// What a shell assigns. Lists and tables are nobody's variable here.
std::string shell_value(json_object *value)
{
	switch (json_object_get_type(value)) {
	case json_type_string:
		return quoted(json_object_get_string(value));
	case json_type_boolean:
		return json_object_get_boolean(value) ? "1" : "0";
	case json_type_int:
	case json_type_double:
		return json_object_get_string(value);
	default:
		return "";
	}
}

bool print_match(json_object *document, const char *expression, bool type_wanted)
{
	Path path;
	if (!parse_path(expression, path)) {
		if (!quiet) {
			fprintf(stderr, "Syntax error in %s\n", expression);
		}
		return false;
	}
	json_object *value = follow(document, path);
	if (!value) {
		return false;
	}
	if (!path.label.empty()) {
		printf("export %s=%s; ", path.label.c_str(), shell_value(value).c_str());
	} else if (type_wanted) {
		printf("%s\n", json_type_to_name(json_object_get_type(value)));
	} else {
		// A string prints as it is, everything else as JSON text.
		printf("%s\n", json_object_get_string(value));
	}
	return true;
}

} // namespace

// Options work in the order in which they stand: the first -e or -t reads the source that was
// named before it, standard input when none was, and later expressions use the same text.
int main(int argc, char **argv)
{
	std::ifstream file;
	const char *text = nullptr; // taken instead of a stream
	Json document;
	int result = all_matched;
	for (int option; (option = getopt(argc, argv, "+qi:s:e:t:")) != -1;) {
		switch (option) {
		case 'q':
			quiet = true;
			break;
		case 'i':
			file.open(optarg);
			if (!file) {
				fprintf(stderr, "Failed to open %s: %s\n", optarg, strerror(errno));
				return no_input;
			}
			break;
		case 's':
			text = optarg;
			break;
		case 'e':
		case 't':
			if (!document) {
				document = parse_json(
					text ? text : read_all(file.is_open() ? file : std::cin));
			}
			if (!document) {
				return not_json;
			}
			if (!print_match(document.get(), optarg, option == 't')) {
				result = nothing_matched;
			}
			break;
		default:
			return usage(argv[0]);
		}
	}
	return document && optind == argc ? result : usage(argv[0]);
}
