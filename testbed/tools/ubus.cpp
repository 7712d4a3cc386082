// SPDX-License-Identifier: ISC
// The `ubus` command: the bus from a shell. Exits with the status code of what it was
// asked to do, 254 for a wrong command or wrong arguments of one, 255 without a broker.
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <system_error>

#include <unistd.h>

#include "ubus_commands.h"

namespace
{

using ubus_command::Arguments;
using ubus_command::Options;

constexpr int exit_usage = 1;
constexpr int exit_wrong_arguments = 254;
constexpr int exit_no_broker = 255;

struct Command {
	const char *name;
	int (*run)(ubus_context &bus, const Options &options, Arguments arguments);
};

constexpr std::array<Command, 5> commands{{
	{"list", ubus_command::list},
	{"call", ubus_command::call},
	{"listen", ubus_command::listen},
	{"send", ubus_command::send},
	{"wait_for", ubus_command::wait_for},
}};

constexpr const char *usage_text = R"(Usage: ubus [OPTIONS] COMMAND [ARGUMENTS...]
Options:
 -s SOCKET	the broker's socket
 -t SECONDS	give up after that time (call: 30; otherwise never)
 -S		short output, for scripts
 -v		list methods too
Commands:
 list [PATH]			objects on the bus; PATH may end in *
 call PATH METHOD [JSON]	call a method, print its answer
 listen [PATTERN...]		print events
 send ID [JSON]			send an event
 wait_for PATH...		wait until these objects are there
)";

int usage(int exit_status)
{
	std::fputs(usage_text, stderr);
	return exit_status;
}

const Command *find_command(const char *name)
{
	for (const Command &command : commands) {
		if (std::strcmp(command.name, name) == 0)
			return &command;
	}
	return nullptr;
}

std::optional<std::chrono::seconds> parse_seconds(const char *text)
{
	constexpr unsigned int longest = std::numeric_limits<int>::max() / 1000;
	unsigned int seconds = 0;
	const char *end = text + std::strlen(text);
	const auto result = std::from_chars(text, end, seconds);

	if (result.ec != std::errc{} || result.ptr != end || seconds > longest)
		return std::nullopt;
	return std::chrono::seconds(seconds);
}

struct CommandLine {
	const char *socket = nullptr; // null: the usual one
	Options options;
	const Command *command = nullptr; // null: there is none of that name
	Arguments arguments;
};

// Nothing when an option is wrong or there is no command.
std::optional<CommandLine> parse_command_line(int argc, char **argv)
{
	CommandLine line;
	int option = 0;

	while ((option = getopt(argc, argv, "+s:t:Sv")) != -1) {
		switch (option) {
		case 's':
			line.socket = optarg;
			break;
		case 't':
			line.options.timeout = parse_seconds(optarg);
			if (!line.options.timeout)
				return std::nullopt;
			break;
		case 'S':
			line.options.simple = true;
			break;
		case 'v':
			line.options.verbose = true;
			break;
		default:
			return std::nullopt;
		}
	}
	if (optind == argc)
		return std::nullopt;
	line.command = find_command(argv[optind]);
	line.arguments = Arguments(argv + optind + 1, static_cast<size_t>(argc - optind - 1));
	return line;
}

} // namespace

int main(int argc, char **argv)
{
	const auto line = parse_command_line(argc, argv);

	if (!line)
		return usage(exit_usage);
	if (!line->command)
		return usage(exit_wrong_arguments);
	const std::unique_ptr<ubus_context, decltype(&ubus_free)> bus(ubus_connect(line->socket),
								      ubus_free);
	if (!bus) {
		if (!line->options.simple)
			std::fprintf(stderr, "Failed to connect to ubus\n");
		return exit_no_broker;
	}
	const int status = line->command->run(*bus, line->options, line->arguments);
	if (status == ubus_command::wrong_usage)
		return usage(exit_wrong_arguments);
	if (status != UBUS_STATUS_OK && !line->options.simple)
		std::fprintf(stderr, "Command failed: %s\n", ubus_strerror(status));
	return status;
}
