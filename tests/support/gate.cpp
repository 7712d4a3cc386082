// SPDX-License-Identifier: ISC
#include "support/gate.h"

#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace router_test
{

Gate::Gate(std::string path) : path_(std::move(path)), descriptor_(-1)
{
	if (mkfifo(path_.c_str(), 0600) != 0) {
		throw std::runtime_error("cannot put a gate at " + path_);
	}
	// Open at both ends: neither the reader's open nor our write waits for the other.
	descriptor_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK);
}

Gate::~Gate()
{
	close(descriptor_);
	unlink(path_.c_str());
}

void Gate::open(std::string_view line) const
{
	const std::string text = std::string(line) + "\n";
	if (write(descriptor_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
		throw std::runtime_error("cannot open the gate at " + path_);
	}
}

} // namespace router_test
