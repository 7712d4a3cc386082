// SPDX-License-Identifier: ISC
#include "support/manifest.h"

namespace router_test
{
namespace
{

std::string escaped(const std::string &text)
{
	std::string result;
	for (char character : text) {
		switch (character) {
		case '&':
			result += "&amp;";
			break;
		case '<':
			result += "&lt;";
			break;
		case '>':
			result += "&gt;";
			break;
		default:
			result += character;
		}
	}
	return result;
}

void add_element(std::string &xml, const char *name, const std::optional<std::string> &value)
{
	if (value) {
		xml += std::string("<") + name + ">" + escaped(*value) + "</" + name + ">\n";
	}
}

} // namespace

std::string to_xml(const Manifest &manifest)
{
	std::string xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<update>\n" + manifest.extra;
	add_element(xml, "version", manifest.version);
	add_element(xml, "buildtime", manifest.buildtime);
	add_element(xml, "url", manifest.url);
	add_element(xml, "release_notes", manifest.release_notes);
	add_element(xml, "force_update", manifest.force_update);
	add_element(xml, "archive", manifest.archive);
	add_element(xml, "file_name", manifest.file_name);
	return xml + "</update>\n";
}

} // namespace router_test
