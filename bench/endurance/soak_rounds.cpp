// SPDX-License-Identifier: ISC
// soak_rounds ROUNDS TABLE: the daemon's everyday life, again and again, in an order that differs
// from cycle to cycle but is the same for each run. Every answer is checked. Measures the daemon
// meanwhile, prints a table, writes all measurements to the file TABLE, and fails when something
// has grown since the first 100 rounds. bench/soak runs it on the simulated router.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <random>
#include <vector>

#include "router.h"
#include "support/process_table.h"

namespace
{

using namespace bench;

constexpr long settled_after = 100;   // rounds; by then all code has run and all memory is there
constexpr long tolerated_growth = 64; // KiB of resident memory
constexpr long most_measurements = 400;
constexpr long printed_rows = 20;
constexpr unsigned seed = 1;

struct Measurement {
	long rounds;
	long seconds;
	long descriptors;
	long children; // zombies included
	long heap;     // KiB
	long resident; // KiB
};

class Soak
{
public:
	Soak() : good_(router_.good_image(4096)), corrupt_(good_)
	{
		flip_bit(corrupt_, corrupt_.size() - 1);
		router_.files.write(good_file, good_);
		router_.files.write(corrupt_file, corrupt_);
		router_.files.write(other_file, make_uimage("x", {.name = "OTHER"}));
	}

	void run_cycle(std::size_t rounds)
	{
		std::vector<std::function<void()>> cycle = {
			[this] { check("190000000", "1"); },
			[this] { check("190000000", "1"); },
			[this] { check("1", "0"); },
			[this] { check_without_manifest(); },
			[this] { test(good_file, "0"); },
			[this] { test(corrupt_file, "-7"); },
			[this] { test(other_file, "-9"); },
			[this] { test("/var/no-such-file", "-2"); },
			[this] { update(answer(good_), "0"); },
			[this] { update(answer(corrupt_), "3"); },
			[this] { update(page_, "2"); },
			[this] { update(answer(good_).reset_after_bytes(1000), "2"); },
		};
		while (cycle.size() < cycle_length) {
			cycle.emplace_back([this] { state(); });
		}
		std::shuffle(cycle.begin(), cycle.end(), random_);
		for (std::size_t i = 0; i < std::min(rounds, cycle_length); i++) {
			cycle[i]();
		}
	}

	Measurement measure(long rounds)
	{
		const pid_t pid = router_.daemon.pid();
		// A worker is collected a moment after its job was answered.
		eventually([&] { return children_of(pid).empty(); });
		const auto now = std::chrono::steady_clock::now();
		return {rounds,
			static_cast<long>(
				duration_cast<std::chrono::seconds>(now - start_).count()),
			static_cast<long>(open_descriptors(pid).size()),
			static_cast<long>(children_of(pid).size()),
			heap_kib(pid),
			rollup_kib(pid)};
	}

	static constexpr std::size_t cycle_length = 20;

private:
	static constexpr const char *good_file = "/var/good.bin";
	static constexpr const char *corrupt_file = "/var/corrupt.bin";
	static constexpr const char *other_file = "/var/other-model.bin";

	void check(const std::string &buildtime, const std::string &need_update)
	{
		router_.offer(buildtime);
		const Reply reply = router_.daemon.check();
		require(code_of(reply) == "0", "check: error " + code_of(reply));
		require(text_of(reply.fields, "need_update") == need_update,
			"check: need_update is not " + need_update);
	}

	void check_without_manifest()
	{
		router_.server.on(manifest_target, page_);
		const Reply reply = router_.daemon.check();
		require(code_of(reply) == "1", "check of a page: error " + code_of(reply));
	}

	void state()
	{
		require(router_.daemon.state().status == 0, "state was not answered");
	}

	void test(const char *file, const std::string &check_code)
	{
		const Reply reply = router_.daemon.test({string_field("file", file)});
		const std::string code = text_of(reply.fields, "check_code");
		require(code == check_code, std::string("test of ") + file + ": " + code);
	}

	// Forced: whatever the last check has said.
	void update(const HttpAnswer &firmware, const std::string &error_code)
	{
		router_.offer("190000000");
		router_.server.on(firmware_target, firmware);
		const Reply reply = router_.daemon.update({string_field("force", "1")});
		require(code_of(reply) == error_code,
			"update: error '" + code_of(reply) + "' and not " + error_code);
		require(wait_until_gone(downloaded_image), "the image is not taken away");
	}

	// The size of the one mapping of that name.
	static long heap_kib(pid_t pid)
	{
		std::ifstream maps("/realproc/" + std::to_string(pid) + "/maps");
		std::string line;
		while (std::getline(maps, line)) {
			unsigned long start = 0;
			unsigned long end = 0;
			if (line.ends_with("[heap]") &&
			    std::sscanf(line.c_str(), "%lx-%lx", &start, &end) == 2) {
				return static_cast<long>((end - start) / 1024);
			}
		}
		return 0;
	}

	// To the page, other than /proc/PID/status.
	static long rollup_kib(pid_t pid)
	{
		std::ifstream rollup("/realproc/" + std::to_string(pid) + "/smaps_rollup");
		std::string word;
		long kib = 0;
		while (rollup >> word) {
			if (word == "Rss:" && rollup >> kib) {
				return kib;
			}
		}
		throw std::runtime_error("the daemon's memory cannot be read");
	}

	Router router_;
	std::string good_;
	std::string corrupt_;
	HttpAnswer page_ = answer(404, "an update server's error page");
	std::mt19937 random_{seed};
	std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

void print_head(FILE *stream)
{
	std::fprintf(stream, "#%7s %8s %12s %9s %9s %13s\n", "rounds", "seconds", "descriptors",
		     "children", "heap KiB", "resident KiB");
}

void print(FILE *stream, const Measurement &row)
{
	std::fprintf(stream, "%8ld %8ld %12ld %9ld %9ld %13ld\n", row.rounds, row.seconds,
		     row.descriptors, row.children, row.heap, row.resident);
	std::fflush(stream);
}

// Says what has grown; true when nothing has.
bool is_flat(const Measurement &first, const Measurement &last)
{
	const struct {
		const char *what;
		long grown;
		long tolerated;
	} values[] = {
		{"descriptors", last.descriptors - first.descriptors, 0},
		{"children", last.children - first.children, 0},
		{"heap, KiB", last.heap - first.heap, 0},
		{"resident memory, KiB", last.resident - first.resident, tolerated_growth},
	};
	bool flat = true;
	for (const auto &value : values) {
		if (value.grown > value.tolerated) {
			std::fprintf(stderr, "soak: %s: grown by %ld since round %ld\n", value.what,
				     value.grown, first.rounds);
			flat = false;
		}
	}
	return flat;
}

int run(long rounds, const char *table)
{
	std::FILE *file = std::fopen(table, "we");
	require(file != nullptr, std::string("cannot write ") + table);
	Soak soak;
	const auto length = static_cast<long>(Soak::cycle_length);
	const long step = std::max(rounds / most_measurements / length, 1L) * length;
	const long print_step = std::max(rounds / printed_rows / step, 1L) * step;
	print_head(stdout);
	print_head(file);
	Measurement settled = {};
	Measurement last = {};
	for (long done = 0; done < rounds;) {
		const long now = std::min(length, rounds - done);
		soak.run_cycle(static_cast<std::size_t>(now));
		done += now;
		if (done % step != 0 && done != settled_after && done != rounds) {
			continue;
		}
		last = soak.measure(done);
		print(file, last);
		if (done == settled_after) {
			settled = last;
		}
		if (done % print_step == 0 || done == settled_after || done == rounds) {
			print(stdout, last);
		}
	}
	std::fclose(file);
	return is_flat(settled, last) ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
	const long rounds = argc == 3 ? std::atol(argv[1]) : 0;
	if (rounds <= settled_after) {
		std::fprintf(stderr, "Usage: soak_rounds ROUNDS TABLE (more than %ld rounds)\n",
			     settled_after);
		return 2;
	}
	try {
		return run(rounds, argv[2]);
	} catch (const std::exception &error) {
		std::fprintf(stderr, "soak: %s\n", error.what());
		return 1;
	}
}
