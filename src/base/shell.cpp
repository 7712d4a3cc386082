// SPDX-License-Identifier: ISC
#include "base/shell.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/log.h"

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
	// Also of a tool that a signal killed: its status is 0.
	return WEXITSTATUS(status) == 0 ? CommandResult::SUCCEEDED : CommandResult::FAILED;
}

bool read_line(std::FILE *stream, char *line, std::size_t size)
{
	std::size_t length = 0;
	while (length + 1 < size) {
		// The end of the file leaves errno alone; what an earlier call put there must
		// not be taken for an interruption.
		errno = 0;
		const int character = std::getc(stream);
		if (character == EOF && errno == EINTR) {
			std::clearerr(stream);
			continue;
		}
		if (character == EOF) {
			break;
		}
		line[length++] = static_cast<char>(character);
		if (character == '\n') {
			break;
		}
	}
	line[length] = '\0';
	return length > 0;
}

} // namespace fwupdate
