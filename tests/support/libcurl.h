// SPDX-License-Identifier: ISC
// For a test program that stands between the daemon's objects and libcurl: it defines libcurl's
// functions itself, and reaches the library's own through these.
#pragma once

#include <cstdarg>
#include <curl/curl.h>
#include <dlfcn.h>

// A macro that checks types stands in the way of defining the function.
#undef curl_easy_setopt

namespace router_test
{

// libcurl's own function of that name.
template<typename Function> Function libcurls(const char *name)
{
	return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// The third argument of curl_easy_setopt, of one kind or the other.
struct OptionValue {
	bool is_number;
	long number;
	void *pointer; // data or a function
};

inline OptionValue take_value(CURLoption option, va_list arguments)
{
	if (option < CURLOPTTYPE_OBJECTPOINT) {
		return {true, va_arg(arguments, long), nullptr};
	}
	return {false, 0, va_arg(arguments, void *)};
}

inline CURLcode pass_on(CURL *curl, CURLoption option, const OptionValue &value)
{
	auto set = libcurls<CURLcode (*)(CURL *, CURLoption, ...)>("curl_easy_setopt");
	return value.is_number ? set(curl, option, value.number) : set(curl, option, value.pointer);
}

} // namespace router_test
