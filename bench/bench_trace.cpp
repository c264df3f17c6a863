// bench_trace.cpp -- cost of one trace record on the fast path (a call site
// after its first use): the daemon traces every received and sent packet, so
// this is per-packet overhead.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

#include "trace.h"

bl_log *bl_handle;

namespace {

// A trace file in a private directory for the whole run.
struct bench_trace_file {
	std::filesystem::path dir;
	bench_trace_file()
	{
		dir = std::filesystem::temp_directory_path() /
		      ("bltrace-bench-" + std::to_string(getpid()));
		std::filesystem::create_directories(dir);
		setenv("BREVLOG_DIR", dir.c_str(), 1);
		bl_handle = bl_initialize_handle(TRACE_FILE_NAME, TRACE_LEVEL_SIZES);
	}
	~bench_trace_file()
	{
		bl_close(bl_handle);
		bl_handle = nullptr;
		std::error_code ec;
		std::filesystem::remove_all(dir, ec);
	}
};

bench_trace_file &trace_file()
{
	static bench_trace_file f;
	return f;
}

void BM_TraceThreeValues(benchmark::State &state)
{
	if (!bl_isInitialized((trace_file(), bl_handle))) {
		state.SkipWithError("no trace handle");
		return;
	}
	std::uint32_t n = 0;
	const char *addr = "192.0.2.1";
	TRACE(TRACE_RX, "RX: packet %u from %s disc %lu", n, addr, (std::uint64_t)n);  // first use
	for (auto _ : state) {
		n++;
		TRACE(TRACE_RX, "RX: packet %u from %s disc %lu", n, addr, (std::uint64_t)n);
	}
	state.SetItemsProcessed(state.iterations());
}

void BM_TraceNoValues(benchmark::State &state)
{
	if (!bl_isInitialized((trace_file(), bl_handle))) {
		state.SkipWithError("no trace handle");
		return;
	}
	for (auto _ : state)
		TRACE(TRACE_EVENT, "EVENT: packet socket readable");
	state.SetItemsProcessed(state.iterations());
}

void BM_TraceOff(benchmark::State &state)
{
	bl_log *saved = bl_handle;
	bl_handle = nullptr;
	std::uint32_t n = 0;
	for (auto _ : state) {
		n++;
		TRACE(TRACE_RX, "RX: packet %u", n);
		benchmark::DoNotOptimize(n);
	}
	bl_handle = saved;
}

}  // namespace

BENCHMARK(BM_TraceThreeValues);
BENCHMARK(BM_TraceNoValues);
BENCHMARK(BM_TraceOff);
BENCHMARK_MAIN();
