// What all benchmarks share. Each is named "row/side": `ours`, `limit` (what the machine allows) or
// a peer. bench/report.py knows the rows, what is aimed at in each, and runs the sides of a row
// next to one another.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include "platform/vel/Types.h"

namespace Bench {

using Vel::U32;
using Vel::U64;

// Keeps the compiler from knowing what `pointer` points to, and what is there.
template <class T>
T* opaque(T* pointer) {
    benchmark::DoNotOptimize(pointer);
    benchmark::ClobberMemory();
    return pointer;
}

// One iteration did the work of so many.
inline void units(benchmark::State& state, size_t count) {
    state.counters["units"] = static_cast<double>(count);
}

// Times f() alone where what goes around it must not count. Worth its 50 ns from a microsecond up.
template <class F>
void timed(benchmark::State& state, F&& f) {
    const auto begin = std::chrono::steady_clock::now();
    f();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(took.count());
}

// For a side that cannot take part here. The report says why and goes on.
inline void leftOut(benchmark::State& state, const std::string& reason) {
    state.SkipWithError(("left out: " + reason).c_str());
}

}  // namespace Bench
