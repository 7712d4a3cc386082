// SPDX-License-Identifier: ISC
#include "support/process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace router_test
{
namespace
{

constexpr const char *further_folders = ":/usr/sbin:/usr/bin:/sbin:/bin";

std::vector<char *> pointers(const std::vector<std::string> &texts)
{
	std::vector<char *> result;
	result.reserve(texts.size() + 1);
	for (const std::string &text : texts) {
		result.push_back(const_cast<char *>(text.c_str()));
	}
	result.push_back(nullptr);
	return result;
}

std::vector<std::string> environment_with(const std::vector<std::string> &settings)
{
	std::vector<std::string> result;
	for (char **entry = environ; *entry != nullptr; entry++) {
		std::string_view present = *entry;
		std::string_view name = present.substr(0, present.find('=') + 1);
		bool replaced = false;
		for (const std::string &setting : settings) {
			replaced = replaced || setting.starts_with(name);
		}
		if (!replaced) {
			result.emplace_back(present);
		}
	}
	result.insert(result.end(), settings.begin(), settings.end());
	return result;
}

// A memory file instead of a pipe: the child reads at its own pace, nobody has to feed it.
int input_file(const std::string &content)
{
	int descriptor = memfd_create("input", MFD_CLOEXEC);
	std::size_t written = 0;
	while (written < content.size()) {
		ssize_t count =
			write(descriptor, content.data() + written, content.size() - written);
		if (count <= 0) {
			throw std::runtime_error("cannot keep a child's input");
		}
		written += static_cast<std::size_t>(count);
	}
	lseek(descriptor, 0, SEEK_SET);
	return descriptor;
}

struct Pipe {
	int read_end = -1;
	int write_end = -1;
};

Pipe open_pipe()
{
	int ends[2];
	if (pipe2(ends, O_CLOEXEC) != 0) {
		throw std::runtime_error("cannot open a pipe");
	}
	return {ends[0], ends[1]};
}

// Runs in the child between fork and exec: system calls only, this process may have threads.
[[noreturn]] void execute(const char *program, char **words, char **environment, int input,
			  int output, int errors, int failure)
{
	for (int number : {SIGPIPE, SIGCHLD, SIGINT, SIGTERM, SIGHUP}) {
		signal(number, SIG_DFL);
	}
	sigset_t none;
	sigemptyset(&none);
	sigprocmask(SIG_SETMASK, &none, nullptr);
	dup2(input, STDIN_FILENO);
	dup2(output, STDOUT_FILENO);
	dup2(errors, STDERR_FILENO);
	syscall(SYS_close_range, STDERR_FILENO + 1, ~0U,
		CLOSE_RANGE_CLOEXEC); // not every C library has it
	execve(program, words, environment);
	int reason = errno;
	if (write(failure, &reason, sizeof(reason)) < 0) {
		_exit(126);
	}
	_exit(127);
}

} // namespace

std::string find_program(const std::string &name)
{
	if (name.find('/') != std::string::npos) {
		return name;
	}
	const char *path = std::getenv("PATH");
	std::string folders = std::string(path != nullptr ? path : "") + further_folders;
	std::size_t start = 0;
	while (start <= folders.size()) {
		std::size_t end = std::min(folders.find(':', start), folders.size());
		std::string candidate = folders.substr(start, end - start) + "/" + name;
		if (end > start && access(candidate.c_str(), X_OK) == 0) {
			return candidate;
		}
		start = end + 1;
	}
	return {};
}

Process::Process(const Command &command)
{
	std::string program =
		find_program(command.program.empty() ? command.words.at(0) : command.program);
	std::vector<std::string> settings = environment_with(command.settings);
	std::vector<char *> words = pointers(command.words);
	std::vector<char *> environment = pointers(settings);
	int input = input_file(command.input);
	Pipe output = open_pipe();
	Pipe errors = open_pipe();
	Pipe failure = open_pipe();

	pid_ = fork();
	if (pid_ == 0) {
		execute(program.c_str(), words.data(), environment.data(), input, output.write_end,
			errors.write_end, failure.write_end);
	}
	for (int descriptor : {input, output.write_end, errors.write_end, failure.write_end}) {
		close(descriptor);
	}
	output_.descriptor = output.read_end;
	errors_.descriptor = errors.read_end;
	fcntl(output_.descriptor, F_SETFL, O_NONBLOCK);
	fcntl(errors_.descriptor, F_SETFL, O_NONBLOCK);
	int reason = 0;
	ssize_t count = 0;
	do {
		count = read(failure.read_end, &reason, sizeof(reason));
	} while (count < 0 && errno == EINTR);
	close(failure.read_end);
	pid_descriptor_ = pid_ > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)) : -1;
	if (pid_ < 0 || count > 0) {
		kill();
		close(output_.descriptor);
		close(errors_.descriptor);
		throw std::runtime_error("cannot run " + command.words.at(0) + ": " +
					 (pid_ < 0 ? "fork failed" : std::strerror(reason)));
	}
}

Process::~Process()
{
	kill();
	for (int descriptor : {pid_descriptor_, output_.descriptor, errors_.descriptor}) {
		if (descriptor >= 0) {
			close(descriptor);
		}
	}
}

bool Process::running()
{
	return !wait(milliseconds(0)).ended;
}

void Process::signal(int number) const
{
	if (pid_ > 0 && !status_.ended) {
		::kill(pid_, number);
	}
}

ExitStatus Process::kill()
{
	if (pid_ <= 0 || status_.ended) {
		return status_;
	}
	signal(SIGKILL);
	collect();
	return status_;
}

// The child has ended or is about to: waits for it without a bound.
void Process::collect()
{
	int status = 0;
	pid_t collected = 0;
	do {
		collected = waitpid(pid_, &status, 0);
	} while (collected < 0 && errno == EINTR);
	status_.ended = true;
	// An event loop of this process may have collected it: then nobody knows how it ended.
	if (collected == pid_) {
		status_.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
		status_.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
	}
	drain(output_);
	drain(errors_);
}

// Takes what is there. False once the stream has ended.
bool Process::drain(Stream &stream)
{
	std::array<char, 65536> chunk;
	while (stream.descriptor >= 0) {
		ssize_t count = read(stream.descriptor, chunk.data(), chunk.size());
		if (count > 0) {
			stream.text.append(chunk.data(), static_cast<std::size_t>(count));
			continue;
		}
		if (count < 0 && errno == EINTR) {
			continue;
		}
		if (count < 0 && errno == EAGAIN) {
			return true;
		}
		close(stream.descriptor);
		stream.descriptor = -1;
	}
	return false;
}

ExitStatus Process::wait(milliseconds limit)
{
	Deadline deadline(limit);
	while (!status_.ended) {
		std::array<pollfd, 3> watched = {{{pid_descriptor_, POLLIN, 0},
						  {output_.descriptor, POLLIN, 0},
						  {errors_.descriptor, POLLIN, 0}}};
		int ready = poll(watched.data(), watched.size(), deadline.remaining());
		if (ready == 0) {
			break;
		}
		drain(output_);
		drain(errors_);
		if (ready > 0 && watched[0].revents != 0) {
			collect();
		}
	}
	return status_;
}

const std::string &Process::output()
{
	drain(output_);
	return output_.text;
}

const std::string &Process::errors()
{
	drain(errors_);
	return errors_.text;
}

bool Process::wait_for_text(Stream &stream, std::string_view text, milliseconds limit)
{
	Deadline deadline(limit);
	for (;;) {
		bool open = drain(stream);
		if (stream.text.find(text) != std::string::npos) {
			return true;
		}
		if (!open || !wait_readable(stream.descriptor, deadline)) {
			return false;
		}
	}
}

bool Process::wait_for_output(std::string_view text, milliseconds limit)
{
	return wait_for_text(output_, text, limit);
}

bool Process::wait_for_errors(std::string_view text, milliseconds limit)
{
	return wait_for_text(errors_, text, limit);
}

RunResult run(const std::vector<std::string> &words, std::string_view input)
{
	Process process({.words = words, .input = std::string(input)});
	ExitStatus status = process.wait();
	return {status, process.output(), process.errors()};
}

RunResult shell(const std::string &text)
{
	return run({"/bin/sh", "-c", text});
}

} // namespace router_test
