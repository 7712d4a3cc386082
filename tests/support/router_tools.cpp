// SPDX-License-Identifier: ISC
#include <algorithm>
#include <filesystem>

#include "support/router_files.h"

namespace router_test
{
namespace
{

constexpr const char *calls_folder = "/var/tool-calls";
// Between the words of a call and between calls: characters that no test uses.
constexpr char word_end = '\x1f';
constexpr char call_end = '\x1e';

std::string calls_file(const std::string &tool)
{
	std::string name = tool;
	std::replace(name.begin(), name.end(), '/', '_');
	return std::string(calls_folder) + "/" + name;
}

} // namespace

void RouterFiles::install_tool(const std::string &path, std::string_view body)
{
	write(path, "#!/bin/sh\n" + std::string(body) + "\n", 0755);
}

void RouterFiles::install_recording_tool(const std::string &path, std::string_view body)
{
	std::string record = std::string("printf '%s") + word_end + "' \"$0\" \"$@\" '" + call_end +
			     "' >>" + calls_file(path) + "\n";
	std::filesystem::create_directories(calls_folder);
	write(calls_file(path), "");
	install_tool(path, record + std::string(body));
}

std::vector<std::vector<std::string>> RouterFiles::tool_calls(const std::string &path) const
{
	std::vector<std::vector<std::string>> calls;
	std::vector<std::string> words;
	for (const std::string &word : split_text(read_file(calls_file(path)), word_end)) {
		if (word == std::string(1, call_end)) {
			calls.push_back(words);
			words.clear();
		} else {
			words.push_back(word);
		}
	}
	return calls;
}

bool RouterFiles::wait_for_tool_calls(const std::string &path, std::size_t count,
				      milliseconds limit) const
{
	return wait_for_change(
		calls_file(path), [&] { return tool_calls(path).size() >= count; }, limit);
}

} // namespace router_test
