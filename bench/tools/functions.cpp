// SPDX-License-Identifier: ISC
// The daemon's own functions, one by one, by Google Benchmark: what runs inside the loop and is
// neither a tool's time nor the network's. Run in the sandbox: some read /proc/mtd and /tmp.
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/records.h"
#include "base/text.h"
#include "discovery/manifest.h"
#include "discovery/mxml_load.h"
#include "firmware/worker.h"
#include "verify/boot_partition.h"
#include "verify/image.h"

namespace
{

using namespace fwupdate;

// An answer of `size` bytes, most of it release notes.
std::string manifest_of(std::size_t size)
{
	const std::string head = "<?xml version=\"1.0\"?>\n<update><buildtime>174200000</buildtime>"
				 "<url>http://update.example.com/fw.bin</url><version>2.0"
				 "</version><release_notes>";
	const std::string tail = "</release_notes></update>";
	const std::size_t fixed = head.size() + tail.size();
	return head + std::string(size > fixed ? size - fixed : 0, 'n') + tail;
}

void manifest_parse(benchmark::State &state)
{
	const std::string answer = manifest_of(static_cast<std::size_t>(state.range(0)));
	for (auto _ : state) {
		int too_large = 0;
		std::vector<char> piece(answer.begin(), answer.end());
		manifest_write_cb(piece.data(), 1, piece.size(), &too_large);
		mxml_node_t *document = load_document(manifest_buffer.data);
		char field[512];
		benchmark::DoNotOptimize(manifest_get_value(document, "release_notes", field,
							    sizeof(field), Element::OPTIONAL));
		mxmlDelete(document);
	}
}
BENCHMARK(manifest_parse)->Arg(192)->Arg(384)->Arg(640)->Arg(1024);

// The partition looked for is the last line: every line is read.
void partition_size(benchmark::State &state)
{
	std::FILE *mtd = std::fopen("/proc/mtd", "w");
	std::fputs("dev:    size   erasesize  name\n", mtd);
	for (int i = 0; i < state.range(0); i++) {
		std::fprintf(mtd, "mtd%d: 00020000 00001000 \"part%d\"\n", i, i);
	}
	std::fputs("mtd99: 01800000 00001000 \"firmware\"\n", mtd);
	std::fclose(mtd);
	for (auto _ : state) {
		benchmark::DoNotOptimize(get_partition_size("firmware"));
	}
}
BENCHMARK(partition_size)->RangeMultiplier(4)->Range(4, 256);

// Without --debug a line costs next to nothing; with it, a connection to syslog.
void log_lines(benchmark::State &state)
{
	debug_mode = static_cast<int>(state.range(0));
	for (auto _ : state) {
		for (int i = 0; i < state.range(1); i++) {
			log_message("Error on reading %s\n", "cpe_sn");
		}
	}
	debug_mode = 0;
}
BENCHMARK(log_lines)->ArgNames({"debug", "lines"})->ArgsProduct({{0, 1}, {1, 8, 32, 128}});

void progress_callback(benchmark::State &state)
{
	ProgressTracker tracker = {};
	tracker.last_second = INT64_MAX; // no second has passed: what nearly every call meets
	for (auto _ : state) {
		benchmark::DoNotOptimize(report_progress(&tracker, 1000, 500, 0, 0));
	}
}
BENCHMARK(progress_callback);

void decimal_number(benchmark::State &state)
{
	for (auto _ : state) {
		benchmark::DoNotOptimize(parse_decimal("174200000"));
	}
}
BENCHMARK(decimal_number);

} // namespace

BENCHMARK_MAIN();
