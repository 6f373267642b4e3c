// The common part of all benchmarks. Each is named "row/side", where the side is `ours`, `limit`
// (the least cost on this machine) or a peer. bench/report.py defines the rows and their aims, and
// runs the sides of a row together.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include "platform/vel/Types.h"

namespace Bench {

using Vel::U32;
using Vel::U64;

// Hides from the compiler what `pointer` points to, and the content there.
template <class T>
T* opaque(T* pointer) {
    benchmark::DoNotOptimize(pointer);
    benchmark::ClobberMemory();
    return pointer;
}

// One iteration performed this many operations.
inline void units(benchmark::State& state, size_t count) {
    state.counters["units"] = static_cast<double>(count);
}

// Times f() alone, if the code around it must not count. Costs 50 ns, so suitable from a
// microsecond up.
template <class F>
void timed(benchmark::State& state, F&& f) {
    const auto begin = std::chrono::steady_clock::now();
    f();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(took.count());
}

// For a side that cannot run here. The report gives the reason and continues.
inline void leftOut(benchmark::State& state, const std::string& reason) {
    state.SkipWithError(("omitted: " + reason).c_str());
}

}  // namespace Bench
