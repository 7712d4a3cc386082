// SPDX-License-Identifier: ISC
#include "support/http_request.h"

#include <strings.h>

namespace router_test
{

HttpRequest parse_request(const std::string &head)
{
	HttpRequest request;
	std::size_t line_end = head.find("\r\n");
	std::string line = head.substr(0, line_end);
	std::size_t first = line.find(' ');
	std::size_t second = line.rfind(' ');
	request.method = line.substr(0, first);
	if (first != std::string::npos && second > first) {
		request.target = line.substr(first + 1, second - first - 1);
	}
	while (line_end + 4 < head.size()) {
		std::size_t start = line_end + 2;
		line_end = head.find("\r\n", start);
		request.headers.push_back(head.substr(start, line_end - start));
	}
	return request;
}

std::string HttpRequest::path() const
{
	return target.substr(0, target.find('?'));
}

std::string HttpRequest::query() const
{
	std::size_t mark = target.find('?');
	return mark == std::string::npos ? "" : target.substr(mark + 1);
}

std::string HttpRequest::header(const std::string &name) const
{
	for (const std::string &line : headers) {
		if (line.size() > name.size() && line[name.size()] == ':' &&
		    strncasecmp(line.c_str(), name.c_str(), name.size()) == 0) {
			return line.substr(line.find_first_not_of(' ', name.size() + 1));
		}
	}
	return {};
}

std::string HttpRequest::parameter(const std::string &name) const
{
	std::string rest = "&" + query();
	std::size_t at = rest.find("&" + name + "=");
	if (at == std::string::npos) {
		return {};
	}
	std::size_t start = at + name.size() + 2;
	return rest.substr(start, rest.find('&', start) - start);
}

} // namespace router_test
