// SPDX-License-Identifier: ISC
// A gate at which a tool of the router waits until the test lets it go on. The tool's script reads
// a line from it; the line is the test's to choose. Gone at the end of its scope: what still waits
// there has to be ended by the fixture.
#pragma once

#include <string>
#include <string_view>

namespace router_test
{

class Gate
{
public:
	// Throws std::runtime_error when there is such a path already.
	explicit Gate(std::string path = "/var/gate");
	~Gate();
	Gate(const Gate &) = delete;

	const std::string &path() const
	{
		return path_;
	}
	// Lets one reader go on, also one that only comes later.
	void open(std::string_view line = "") const;

private:
	std::string path_;
	int descriptor_;
};

} // namespace router_test
