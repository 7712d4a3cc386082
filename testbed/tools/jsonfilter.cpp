// SPDX-License-Identifier: ISC
// jsonfilter: prints the values of a JSON text that path expressions lead to.
//
// Options work in the order in which they stand: an -e reads the source that was named before it,
// standard input when none was, and later expressions reuse the text.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <json-c/json.h>
#include <memory>
#include <string>
#include <unistd.h>

#include "jsonfilter_path.h"

namespace
{

enum ExitCode : int {
	all_matched = 0,
	nothing_matched = 1, // at least one expression led nowhere or was malformed
	no_input = 125,
	not_json = 126,
};

constexpr std::size_t read_size = 65536;

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

struct Source {
	FILE *stream = stdin;
	const char *text = nullptr; // taken instead of the stream
	bool quiet = false;
};

int usage(const char *program)
{
	fprintf(stderr, "Usage: %s [-q] [-i FILE | -s JSON] {-e | -t} [NAME=]EXPRESSION...\n",
		program);
	return nothing_matched;
}

// What can be read; nothing more after an error, which the JSON parser then complains about.
std::string read_all(FILE *stream)
{
	std::string text;
	std::size_t got = 0;
	do {
		const std::size_t old = text.size();
		text.resize(old + read_size);
		got = fread(text.data() + old, 1, read_size, stream);
		text.resize(old + got);
	} while (got > 0);
	return text;
}

// The first JSON value of the text; what follows it is not looked at. The terminating zero is
// withheld from the tokener, so that a bare number which the text's end cuts off is refused.
Json parse_json(const Source &source)
{
	const std::string text = source.text ? source.text : read_all(source.stream);
	const std::unique_ptr<json_tokener, JsonDeleter> tokener(json_tokener_new());
	Json document;
	const char *problem = "the text is too long";
	if (text.size() <= INT32_MAX) {
		document.reset(json_tokener_parse_ex(tokener.get(), text.data(),
						     static_cast<int>(text.size())));
		const json_tokener_error error = json_tokener_get_error(tokener.get());
		problem = error == json_tokener_continue  ? "unexpected end of data"
			  : error == json_tokener_success ? "null"
							  : json_tokener_error_desc(error);
	}
	if (!document && !source.quiet) {
		fprintf(stderr, "Failed to parse json data: %s\n", problem);
	}
	return document;
}

bool open_source(Source &source, const char *path)
{
	FILE *stream = fopen(path, "re");
	if (!stream) {
		if (!source.quiet) {
			fprintf(stderr, "Failed to open %s: %s\n", path, strerror(errno));
		}
		return false;
	}
	if (source.stream != stdin) {
		fclose(source.stream);
	}
	source.stream = stream;
	source.text = nullptr;
	return true;
}

std::string quoted(const char *text)
{
	std::string quoted = "'";
	for (; *text; text++) {
		quoted += *text == '\'' ? "'\"'\"'" : std::string(1, *text);
	}
	return quoted + "'";
}

// What a shell assigns: of an object its names, of an array its places.
std::string shell_value(json_object *value)
{
	std::string words;
	switch (json_object_get_type(value)) {
	case json_type_string:
		return quoted(json_object_get_string(value));
	case json_type_boolean:
		return json_object_get_boolean(value) ? "1" : "0";
	case json_type_double:
		return std::to_string(json_object_get_double(value));
	case json_type_int:
		return json_object_get_string(value);
	case json_type_object:
		for (json_object_iterator it = json_object_iter_begin(value),
					  end = json_object_iter_end(value);
		     !json_object_iter_equal(&it, &end); json_object_iter_next(&it)) {
			words += (words.empty() ? "" : "\\ ") +
				 quoted(json_object_iter_peek_name(&it));
		}
		return words;
	case json_type_array:
		for (std::size_t place = 0; place < json_object_array_length(value); place++) {
			words += (words.empty() ? "" : "\\ ") + std::to_string(place);
		}
		return words;
	case json_type_null:
		return "";
	}
	return "";
}

enum class Wanted { value, type };

bool print_match(json_object *document, const char *expression, Wanted wanted, bool quiet)
{
	const jsonfilter::Path path = jsonfilter::parse_path(expression);
	if (!path.problem.empty()) {
		if (!quiet) {
			fprintf(stderr, "Syntax error: %s at character %zu of %s\n",
				path.problem.c_str(), path.position + 1, expression);
		}
		return false;
	}
	json_object *value = jsonfilter::follow(document, path);
	if (!value) {
		return false;
	}
	const char *type = json_type_to_name(json_object_get_type(value));
	if (path.label.empty()) {
		// A string prints as it is, everything else as JSON text.
		printf("%s\n", wanted == Wanted::type ? type : json_object_get_string(value));
	} else {
		printf("export %s=%s; ", path.label.c_str(),
		       wanted == Wanted::type ? type : shell_value(value).c_str());
	}
	return true;
}

} // namespace

int main(int argc, char **argv)
{
	Source source;
	Json document;
	int result = all_matched;
	bool asked = false;
	for (int option; (option = getopt(argc, argv, "+qi:s:e:t:")) != -1;) {
		switch (option) {
		case 'q':
			source.quiet = true;
			break;
		case 'i':
			if (!open_source(source, optarg)) {
				return no_input;
			}
			break;
		case 's':
			source.text = optarg;
			break;
		case 'e':
		case 't':
			asked = true;
			if (!document) {
				document = parse_json(source);
			}
			if (!document) {
				return not_json;
			}
			if (!print_match(document.get(), optarg,
					 option == 't' ? Wanted::type : Wanted::value,
					 source.quiet)) {
				result = nothing_matched;
			}
			break;
		default:
			return usage(argv[0]);
		}
	}
	return asked && optind == argc ? result : usage(argv[0]);
}
