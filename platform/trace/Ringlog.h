// The process-wide ring of trace records. It holds the newest megabyte of records; older ones are
// overwritten. A call site writes binary data: the address of its constant part, the time, and
// copies of the arguments' bytes. Text is made only when a record is read or delivered.
//
// There is one ring, in libVel, for the one event thread: only that thread may write or read it,
// and no function here is for signal handlers. Call sites use Duolog.h instead of this header.
//
// Invariants:
// - A record made while the arguments of another are rendered, or while the ring is read, is
//   dropped and counted. So a reader sees whole records only.
// - All records of one event, that is of one outermost notification, have the time of its first
//   record; outside an event each record has its own time. A record's time never changes.
// - Reading never fails because of a record's content: a value that cannot be rendered is shown as
//   "(unreadable)", even if rendering it breaks an assertion, also in a noexcept function.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Export.h"
#include "platform/trace/Facility.h"

namespace Ringlog {

inline constexpr size_t capacity = size_t{1} << 20;
inline constexpr size_t maxRecord = 2048;  // bytes, header included
inline constexpr size_t maxPieces = 16;    // phrases and values of one call site

// The constant part of all records of one call site. The first record fills in `render` and
// `phrases`, which depend on the argument types.
struct Site {
    const Duolog::Facility& facility;
    const char* function;
    const char* file;
    int line;
    int level;
    void (*render)(const Site& site, const uint8_t* args, std::string& out) = nullptr;
    std::array<const char*, maxPieces> phrases{};
};

// The header of a record; its arguments follow. Records lie back to back at positions that only
// grow; position p is at memory[p % capacity].
struct Header {
    const Site* site;
    int64_t time;           // nanoseconds since 1970 (CLOCK_REALTIME)
    uint32_t size;          // of the record, a multiple of 8
    uint32_t previousSize;  // of the record before it; 0 in the first record of the process
};
static_assert(sizeof(Header) == 24 && maxRecord % 8 == 0);

// Reasons why the next record needs attention (see prepare()); bits of State::attention.
enum Attention : uint8_t {
    busy = 1,      // arguments are being rendered or the ring read: the record is dropped
    untimed = 2,   // the current event has no time yet; always set outside events
    delivers = 4,  // a text sink or a capture is set
};

struct State {
    uint8_t* memory;        // capacity bytes, plus maxRecord so that no record is split
    uint64_t head = 0;      // position of the next record, a multiple of 8
    int64_t time = 0;       // of the next record, unless `untimed` is set
    uint64_t dropped = 0;   // records dropped since the process began
    uint32_t lastSize = 0;  // of the newest record; 0 while there is none
    uint32_t events = 0;    // nested events in progress
    uint8_t attention = untimed;
};
VEL_EXPORT extern State state;

// While one exists, new records are dropped.
class Busy {
  public:
    Busy() : before_(state.attention & busy) { state.attention |= busy; }
    ~Busy() { state.attention = static_cast<uint8_t>((state.attention & ~busy) | before_); }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

  private:
    const uint8_t before_;
};

// The next record takes a new time. Called when an outermost notification begins within an event.
inline void newTime() {
    state.attention |= untimed;
}
// An event begins; events nest.
inline void beginEvent() {
    ++state.events;
}
// The innermost event ends. Returns whether it was the outermost one.
inline bool endEvent() {
    if (--state.events != 0) return false;
    newTime();
    return true;
}

// Prepares a record that needs attention: takes its time. Returns false if it is to be dropped.
VEL_EXPORT bool prepare();

// The place of the next record: its header, followed by at most maxRecord - sizeof(Header) bytes of
// arguments.
inline uint8_t* recordBegin() {
    return state.memory + state.head % capacity;
}

// Completes the record between `at`, which recordBegin() returned, and `end`.
inline void commit(const Site& site, uint8_t* at, const uint8_t* end) {
    const auto size = (static_cast<uint32_t>(end - at) + 7) & ~uint32_t{7};
    ::new (static_cast<void*>(at)) Header{&site, state.time, size, state.lastSize};
    state.head += size;
    state.lastSize = size;
}

// One record as text, in local time:
//     2026-01-31T12:34:56.123456+01:00 path:7 updatePathVia: Adding pathIndex: 3 (File.cpp:123)
// The function's name is left out where the text itself begins with it. Control characters and
// bytes that are not UTF-8 are written as \xHH.
struct Line {
    std::string line;
    size_t textOffset;  // of "Adding pathIndex: 3"
    size_t textLength;
    int level;

    std::string_view text() const { return std::string_view(line).substr(textOffset, textLength); }
};

// The newest `count` records, oldest first.
VEL_EXPORT std::vector<std::string> last(size_t count);

// The newest record. REQUIRES: the ring is not empty.
VEL_EXPORT Line newest();

// Writes all records to a file descriptor, one a line, then the number of dropped records. Stops at
// the first write error.
VEL_EXPORT void dump(int fd);

// Replaces control characters and bytes that are not UTF-8, from `begin` on, by \xHH.
VEL_EXPORT void escape(std::string& text, size_t begin);
// Removes the beginning of a UTF-8 character that was cut off at the end of the text.
VEL_EXPORT void dropCutCharacter(std::string& text, size_t begin);

}  // namespace Ringlog
