// SPDX-License-Identifier: ISC
// The path expressions of jsonfilter: `NAME=` for a shell variable or nothing, `@` or `$`, then
// members (`.name`, `["name"]`,
// `['name']`) and array places (`[0]`, `[-1]` from the end). Used by jsonfilter.cpp; reads no
// input and prints nothing. Wildcards, filters and unions are refused as syntax errors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

struct json_object;

namespace jsonfilter
{

// A member's name, or an array's place (negative: counted from the end).
using Step = std::variant<std::string, std::int64_t>;

struct Path {
	std::string label; // the shell variable that gets the value, or empty
	std::vector<Step> steps;
	std::string problem;	  // empty when the expression is well formed
	std::size_t position = 0; // byte of the expression at which the problem was found
};

Path parse_path(std::string_view expression);

// The value that the path leads to, owned by the document; nullptr when a step leads nowhere and
// also for a JSON null, which counts as no value.
json_object *follow(json_object *document, const Path &path);

} // namespace jsonfilter
