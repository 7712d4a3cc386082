// SPDX-License-Identifier: ISC
#include "core/shell.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/log.h"

namespace fwupdate
{

void run_probe(const char *command, char *field, std::size_t size, const char *failure)
{
	std::FILE *output = popen(command, "r");
	std::memset(field, 0, size);
	if (output == nullptr) {
		log_message("%s", failure);
		return;
	}
	const bool delivered = read_line(output, field, size);
	pclose(output);
	if (!delivered) {
		log_message("%s", failure);
	}
}

CommandResult run_command(const char *command)
{
	const int status = std::system(command);
	if (status == -1) {
		return CommandResult::NOT_RUN;
	}
	// Bits 8 to 15 alone: a tool that a signal killed has zeros there.
	return ((status >> 8) & 0xff) == 0 ? CommandResult::SUCCEEDED : CommandResult::FAILED;
}

bool read_line(std::FILE *stream, char *line, std::size_t size)
{
	for (;;) {
		errno = 0;
		if (std::fgets(line, static_cast<int>(size), stream) != nullptr) {
			return true;
		}
		// fgets leaves errno alone at the end of the file, hence the reset above.
		if (errno != EINTR) {
			return false;
		}
		std::clearerr(stream);
	}
}

} // namespace fwupdate
