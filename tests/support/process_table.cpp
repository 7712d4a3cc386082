// SPDX-License-Identifier: ISC
#include "support/process_table.h"

#include <cctype>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace router_test
{
namespace
{

namespace fs = std::filesystem;

// Inside the simulated router /proc holds only what the router's programs look for.
const fs::path &proc()
{
	static const fs::path root = fs::exists("/realproc/self") ? "/realproc" : "/proc";
	return root;
}

std::string read_text(const fs::path &path)
{
	std::ifstream file(path, std::ios::binary);
	std::ostringstream text;
	text << file.rdbuf();
	return text.str();
}

bool to_number(const std::string &text, int &number)
{
	auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
	return error == std::errc() && end == text.data() + text.size();
}

// "12 (name with) blanks) S 1 ...": the name ends at the last parenthesis.
bool read_entry(pid_t pid, ProcessEntry &entry)
{
	std::string stat = read_text(proc() / std::to_string(pid) / "stat");
	std::size_t open = stat.find('(');
	std::size_t close = stat.rfind(')');
	if (open == std::string::npos || close == std::string::npos) {
		return false;
	}
	entry.pid = pid;
	entry.name = stat.substr(open + 1, close - open - 1);
	std::istringstream rest(stat.substr(close + 1));
	rest >> entry.state >> entry.parent;
	return true;
}

long status_number(pid_t pid, std::string_view name)
{
	std::istringstream status(read_text(proc() / std::to_string(pid) / "status"));
	std::string line;
	while (std::getline(status, line)) {
		if (line.starts_with(name)) {
			return std::stol(line.substr(name.size()));
		}
	}
	return 0;
}

} // namespace

std::vector<ProcessEntry> all_processes()
{
	std::vector<ProcessEntry> entries;
	for (const fs::directory_entry &folder : fs::directory_iterator(proc())) {
		int pid = 0;
		ProcessEntry entry;
		if (to_number(folder.path().filename(), pid) && read_entry(pid, entry)) {
			entries.push_back(entry);
		}
	}
	return entries;
}

std::vector<ProcessEntry> children_of(pid_t pid)
{
	std::vector<ProcessEntry> children;
	for (const ProcessEntry &entry : all_processes()) {
		if (entry.parent == pid) {
			children.push_back(entry);
		}
	}
	return children;
}

bool is_alive(pid_t pid)
{
	ProcessEntry entry;
	return read_entry(pid, entry) && entry.state != 'Z' && entry.state != 'X';
}

std::map<int, std::string> open_descriptors(pid_t pid)
{
	std::map<int, std::string> descriptors;
	std::error_code error;
	fs::path folder = proc() / std::to_string(pid) / "fd";
	for (auto link = fs::directory_iterator(folder, error); link != fs::directory_iterator();
	     link.increment(error)) {
		int number = -1;
		std::error_code gone;
		fs::path target = fs::read_symlink(link->path(), gone);
		if (!gone && to_number(link->path().filename(), number)) {
			descriptors[number] = target.string();
		}
		if (error) {
			break;
		}
	}
	return descriptors;
}

std::set<std::string> mapped_files(pid_t pid)
{
	std::set<std::string> mapped;
	std::istringstream maps(read_text(proc() / std::to_string(pid) / "maps"));
	std::string line;
	while (std::getline(maps, line)) {
		std::istringstream words(line);
		std::string range;
		std::string mode;
		std::string offset;
		std::string device;
		std::string inode;
		std::string path;
		words >> range >> mode >> offset >> device >> inode;
		std::getline(words >> std::ws, path);
		path = path.substr(0, path.find(" (deleted)"));
		if (path.starts_with("/")) {
			mapped.insert(path + " " + mode + " " + offset);
		}
	}
	return mapped;
}

long mapped_kib(pid_t pid)
{
	return status_number(pid, "VmSize:");
}

} // namespace router_test
