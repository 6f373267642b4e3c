// Trace sites that are off, a record that takes the time of an event, a decision within an event.
#include <chrono>
#include <cstdio>
#include <memory>

#include "bench/Bench.h"
#include "platform/trace/Duolog.h"
#include "platform/vel/Object.h"

#ifdef BENCH_FMT
#include <fmt/format.h>
#endif
#ifdef BENCH_LTTNG
#include "bench/LttngProvider.h"
#endif
#ifdef BENCH_SPDLOG
#include <spdlog/logger.h>
#include <spdlog/sinks/ringbuffer_sink.h>
#endif

namespace Bench {
namespace {

Duolog::Facility benchTrace{"bench"};

// Calls site(i) in each iteration; each side has its own level.
template <class Site>
void trace(benchmark::State& state, int level, Site&& site) {
    benchTrace.levelIs(level);
    U32 index = 0;
    for (auto _ : state) {
        site(++index);
        benchmark::ClobberMemory();
    }
    benchTrace.levelIs(Duolog::Facility::defaultLevel);
}

void nothing(benchmark::State& state, int level) {
    trace(state, level, [](U32 index) { benchmark::DoNotOptimize(index); });
}
void decision(benchmark::State& state, int level) {
    const Vel::Hold event;
    trace(state, level, [](U32 index) {
        benchmark::DoNotOptimize(index);
        DUOLOG(benchTrace, 7, "Adding pathIndex: ", index, " to site");
    });
}
void entry(benchmark::State& state, int level) {
    trace(state, level, [](U32 index) {
        benchmark::DoNotOptimize(index);
        DUOLOG_ENTRY(benchTrace);
    });
}
void stamp(benchmark::State& state, int level) {
    trace(state, level, [](U32) { benchmark::DoNotOptimize(std::chrono::system_clock::now()); });
}

// The least that a decision must write: a constant, a time, an argument.
void stores(benchmark::State& state, int level) {
    struct Record {
        const char* site;
        U64 stamp;
        U32 index;
    };
    static Record ring[1024];
    U64 at = 0;
    trace(state, level, [&](U32 index) {
        benchmark::DoNotOptimize(index);
        ring[at++ % 1024] = {"Adding pathIndex: %u to site", 1, index};
    });
}

void print(benchmark::State& state, int level) {
    char line[128];
    trace(state, level, [&](U32 index) {
        std::snprintf(line, sizeof line, "Adding pathIndex: %u to site", index);
        benchmark::DoNotOptimize(line);
    });
}
#ifdef BENCH_FMT
void format(benchmark::State& state, int level) {
    char line[128];
    trace(state, level, [&](U32 index) {
        fmt::format_to(line, "Adding pathIndex: {} to site", index);
        benchmark::DoNotOptimize(line);
    });
}
#endif
#ifdef BENCH_SPDLOG
void spdlogRing(benchmark::State& state, int level) {
    spdlog::logger logger("bench", std::make_shared<spdlog::sinks::ringbuffer_sink_st>(1024));
    trace(state, level, [&](U32 index) { logger.info("Adding pathIndex: {} to site", index); });
}
#endif
#ifdef BENCH_LTTNG
// Without a recording session it would be a branch that is not taken.
void lttngRecorded(benchmark::State& state, int level) {
    if (!lttng_ust_tracepoint_enabled(bench, decision))
        return leftOut(state, "no session records, which package lttng-tools is for");
    trace(state, level, [](U32 index) { lttng_ust_tracepoint(bench, decision, index); });
}
void lttngOff(benchmark::State& state, int level) {
    trace(state, level, [](U32 index) { lttng_ust_tracepoint(bench, off, index); });
}
#endif

BENCHMARK_CAPTURE(decision, , 5)->Name("trace-off/ours");
BENCHMARK_CAPTURE(nothing, , 5)->Name("trace-off/limit");
BENCHMARK_CAPTURE(entry, , 8)->Name("trace-stamped/ours");
BENCHMARK_CAPTURE(stamp, , 8)->Name("trace-stamped/limit");
BENCHMARK_CAPTURE(decision, , 7)->Name("trace-decision/ours");
BENCHMARK_CAPTURE(stores, , 7)->Name("trace-decision/limit");
BENCHMARK_CAPTURE(print, , 7)->Name("trace-decision/snprintf");
#ifdef BENCH_FMT
BENCHMARK_CAPTURE(format, , 7)->Name("trace-decision/fmt");
#endif
#ifdef BENCH_SPDLOG
BENCHMARK_CAPTURE(spdlogRing, , 7)->Name("trace-decision/spdlog ring buffer");
#endif
#ifdef BENCH_LTTNG
BENCHMARK_CAPTURE(lttngOff, , 5)->Name("trace-off/LTTng-UST");
BENCHMARK_CAPTURE(lttngRecorded, , 7)->Name("trace-decision/LTTng-UST");
#endif

}  // namespace
}  // namespace Bench
