// SPDX-License-Identifier: ISC
#include "daemon/instance.h"

#include <cstddef>
#include <cstring>
#include <unistd.h>

#include "base/log.h"
#include "base/shell.h"
#include "base/text.h"

namespace fwupdate
{

namespace
{

constexpr std::size_t PIDOF_SIZE = 64; // of the command and of its answer

} // namespace

int is_already_running(const char *name)
{
	const pid_t own_id = getpid();
	char command[PIDOF_SIZE];
	char process_ids[PIDOF_SIZE];

	format_text(command, sizeof(command), "pidof %s", name);
	run_probe(command, process_ids, sizeof(process_ids), "Error on reading pidof_fwupdate\n");
	if (process_ids[0] == '\0') {
		log_message("Error on checking pids for '%s'\n", command);
		return 1;
	}

	// The line feed stays on the last word; the number ends before it.
	char *rest = nullptr;
	for (const char *word = strtok_r(process_ids, " ", &rest); word != nullptr;
	     word = strtok_r(nullptr, " ", &rest)) {
		if (parse_decimal(word) != own_id) {
			log_message("Service already running\n");
			return 1;
		}
	}
	return 0;
}

} // namespace fwupdate
