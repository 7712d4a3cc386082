// SPDX-License-Identifier: ISC
// Calls one method from several clients at once and prints what they saw, as one line of JSON:
// calls per second of all together, and the latency of one call in microseconds.
//
//	bus_load OBJECT METHOD CLIENTS SECONDS ROUNDS
//
// Each round has clients of its own and lasts SECONDS: where the kernel puts a process decides a
// good part of its latency, and stays as it is for as long as the process lives.
// Each client is a process with a connection of its own that calls, waits, and calls again. A call
// that is not answered with status 0 is counted as failed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "clock.h"

extern "C" {
#include <libubox/blobmsg.h>
#include <libubus.h>
}

namespace
{

constexpr int MOST_CLIENTS = 1024;
constexpr std::size_t MOST_CALLS = 200000; // of one client; room for its latencies
constexpr int CALL_TIMEOUT = 60000;	   // milliseconds

// What one client has seen; written by the client, read when all have ended.
struct Seen {
	std::uint32_t calls;
	std::uint32_t failed;
	std::uint32_t nanoseconds[MOST_CALLS];
};

int run_client(const char *object, const char *method, std::int64_t begin, std::int64_t end,
	       Seen &seen)
{
	static blob_buf arguments;
	blob_buf_init(&arguments, 0);
	ubus_context *bus = ubus_connect(nullptr);
	std::uint32_t id = 0;
	if (bus == nullptr || ubus_lookup_id(bus, object, &id) != 0) {
		std::fprintf(stderr, "bus_load: '%s' is not on the bus\n", object);
		return 1;
	}
	while (nanoseconds_now() < begin) {
		usleep(100);
	}
	for (std::int64_t started = nanoseconds_now(); started < end && seen.calls < MOST_CALLS;) {
		if (ubus_invoke(bus, id, method, arguments.head, nullptr, nullptr, CALL_TIMEOUT) !=
		    0) {
			seen.failed++;
		}
		const std::int64_t done = nanoseconds_now();
		seen.nanoseconds[seen.calls] = static_cast<std::uint32_t>(
			std::min<std::int64_t>(done - started, UINT32_MAX));
		seen.calls++;
		started = done;
	}
	ubus_free(bus);
	return 0;
}

double percentile(const std::vector<std::uint32_t> &sorted, double share)
{
	const auto place = static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1));
	return sorted[place] / 1000.0;
}

// One round: all clients at once. False when one of them failed.
bool run_clients(char **argv, int clients, double seconds, Seen *seen)
{
	// All have connected by then; a client that is late simply calls less often.
	const std::int64_t begin = nanoseconds_now() + 2000000LL * clients + 20000000LL;
	const std::int64_t end = begin + static_cast<std::int64_t>(seconds * 1e9);
	for (int i = 0; i < clients; i++) {
		seen[i].calls = 0;
		seen[i].failed = 0;
		const pid_t child = fork();
		if (child == 0) {
			_exit(run_client(argv[1], argv[2], begin, end, seen[i]));
		}
		if (child < 0) {
			std::perror("bus_load: fork");
			return false;
		}
	}
	int status = 0;
	for (int left = clients; left > 0; left--) {
		int ended = 0;
		wait(&ended);
		status |= ended;
	}
	return status == 0;
}

int misuse()
{
	std::fputs("Usage: bus_load OBJECT METHOD CLIENTS SECONDS ROUNDS\n", stderr);
	return 2;
}

} // namespace

int main(int argc, char **argv)
{
	if (argc != 6) {
		return misuse();
	}
	const int clients = std::atoi(argv[3]);
	const double seconds = std::atof(argv[4]);
	const int rounds = std::atoi(argv[5]);
	if (clients < 1 || clients > MOST_CLIENTS || seconds <= 0 || rounds < 1) {
		return misuse();
	}

	void *memory = mmap(nullptr, sizeof(Seen) * static_cast<std::size_t>(clients),
			    PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
	if (memory == MAP_FAILED) {
		std::perror("bus_load: mmap");
		return 1;
	}
	auto *seen = static_cast<Seen *>(memory);
	std::vector<std::uint32_t> latencies;
	std::uint32_t failed = 0;
	for (int round = 0; round < rounds; round++) {
		if (!run_clients(argv, clients, seconds, seen)) {
			return 1;
		}
		for (int i = 0; i < clients; i++) {
			latencies.insert(latencies.end(), seen[i].nanoseconds,
					 seen[i].nanoseconds + seen[i].calls);
			failed += seen[i].failed;
		}
	}
	if (latencies.empty()) {
		return 1;
	}
	std::sort(latencies.begin(), latencies.end());
	std::printf("{\"calls\": %zu, \"failed\": %u, \"per_second\": %.1f, \"p50\": %.1f, "
		    "\"p99\": %.1f}\n",
		    latencies.size(), failed,
		    static_cast<double>(latencies.size()) / (seconds * rounds),
		    percentile(latencies, 0.50), percentile(latencies, 0.99));
	return 0;
}
