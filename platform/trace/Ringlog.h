// The process-wide ring of trace records. It holds the newest megabyte of records; older ones are
// overwritten. What a call site writes is binary: the site's address, a time stamp and copies of
// the arguments' bytes. Text is made only when somebody reads.
//
// There is one ring, in libVel, for the one event thread: only that thread may write or read it,
// and none of it is for signal handlers. Call sites do not use this header but Duolog.h.
//
// Records lie back to back, 8-byte aligned, at positions that only grow; position p is at
// memory[p % capacity]. Behind the ring there is room for one more record, so that none is ever
// split. Each knows the size of the one before it, which is how the reader walks back from the
// head.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/trace/Facility.h"

#if !defined(__x86_64__) && !defined(__aarch64__)
#include <ctime>
#endif

namespace Ringlog {

inline constexpr size_t capacity = size_t{1} << 20;
inline constexpr size_t maxRecord = 2048;  // bytes, header included
inline constexpr size_t maxPieces = 16;    // phrases and values of one call site

// The constant part of all records of one call site. What depends on the argument types and the
// phrases is filled in when the site is first on.
struct Site {
    const Duolog::Facility& facility;
    const char* file;
    int line;
    int level;
    void (*render)(const Site& site, const uint8_t* args, std::string& out) = nullptr;
    std::array<const char*, maxPieces> phrases{};
};

struct Header {
    const Site* site;
    uint64_t stamp;
    uint32_t size;
    uint32_t previousSize;  // 0 in the first record of the process
};
static_assert(sizeof(Header) == 24 && maxRecord % 8 == 0);

struct State {
    uint8_t* memory;
    uint64_t head = 0;      // position of the next record
    uint64_t stamp = 0;     // of the newest stamped record
    uint32_t lastSize = 0;  // of the newest record
    bool delivers = false;  // whether somebody wants text as records come
};
VEL_EXPORT extern State state;

// The cheapest clock there is; the reader turns it into wall-clock time.
inline uint64_t ticks() {
#if defined(__x86_64__)
    return __builtin_ia32_rdtsc();
#elif defined(__aarch64__)
    uint64_t value;
    asm volatile("mrs %0, cntvct_el0" : "=r"(value));
    return value;
#else
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000U + static_cast<uint64_t>(now.tv_nsec);
#endif
}

// Where the next record goes: its header, then at most maxRecord - sizeof(Header) bytes of
// arguments.
inline uint8_t* recordBegin() {
    return state.memory + state.head % capacity;
}

// Makes a record of what lies between `at`, which recordBegin() gave, and `end`, with the newest
// stamp.
inline void commit(const Site& site, uint8_t* at, const uint8_t* end) {
    const auto size = (static_cast<uint32_t>(end - at) + 7) & ~uint32_t{7};
    ::new (static_cast<void*>(at)) Header{&site, state.stamp, size, state.lastSize};
    state.head += size;
    state.lastSize = size;
}

// The newest `count` records as text, oldest first, in local time:
// "2026-01-31 12:34:56.123456 path:7 Adding pathIndex: 3".
VEL_EXPORT std::vector<std::string> last(size_t count);

// The newest record: its line as above, and its bare text. REQUIRES: there is one.
struct Line {
    std::string line;
    size_t textOffset;
};
VEL_EXPORT Line newest();

// Writes all records to a file descriptor, a line each, with the call site's file and line.
VEL_EXPORT void dump(int fd);

}  // namespace Ringlog
