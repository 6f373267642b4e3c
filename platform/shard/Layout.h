// The layout of a segment: header, index, use counters, change ring, heap, in this order, each at
// an offset that follows from the geometry in the header. docs/shared-memory.md draws it and
// describes how readers and the writer use it. Every change of this file raises `layoutVersion`.
//
// One 64-bit word of the index represents one key. Everything that a write changes becomes visible
// by one store of that word, so a writer that dies leaves no half-written state.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/Export.h"
#include "platform/netz/Hash.h"

namespace Shard {

constexpr uint64_t magic = 0x31454c4254444853;  // "SHDTBLE1"
constexpr uint32_t layoutVersion = 2;
constexpr uint32_t maxProbe = 64;        // slots that may hold a key, beginning with its home slot
constexpr uint32_t maxUnits = 1U << 24;  // limited by the bits of Word::unit
constexpr uint32_t maxKeyBytes = 256;    // including padding
constexpr uint32_t maxValueBytes = 1U << 24;

// The content of a map, known to both sides at compile time.
struct Shape {
    uint32_t keyBytes;    // padded with zeros to whole words
    uint32_t valueBytes;  // of a value; of the longest list where values are lists
    uint32_t schema;      // raised by the value type's owner when its fields change
    uint32_t list;        // 1: a value takes as many bytes as it needs, up to valueBytes

    constexpr uint32_t keyWords() const { return keyBytes / 8; }
    // A block is {lead, key, value}. In a list map, whose blocks begin at any unit, the lead is the
    // value's length in bytes; otherwise it is the use counter of the block's only unit.
    constexpr uint64_t blockBytes(uint64_t bytes) const {
        return 8 + keyBytes + (bytes + 7) / 8 * 8;
    }
    constexpr uint32_t unitBytes() const {
        return list ? 64 : static_cast<uint32_t>(blockBytes(valueBytes));
    }
    bool operator==(const Shape&) const = default;
};

struct VEL_EXPORT Geometry {
    Shape shape;
    uint32_t capacity;     // the largest number of keys
    uint32_t homes;        // slots that a key can hash to, a power of two; maxProbe more follow
    uint32_t ringRecords;  // a power of two
    uint32_t unitBytes;    // the heap is allocated in units of this size
    uint32_t units;

    // `listBytes`: the total size of all values of a list map. Raises Vel::Error if the map would
    // exceed the limits of the layout.
    static Geometry of(const Shape& shape, uint32_t capacity, uint64_t listBytes);
    // Whether `of` could have produced these numbers. Must be checked before any function below is
    // called.
    bool sound() const;

    uint64_t slots() const { return uint64_t{homes} + maxProbe; }
    uint64_t recordBytes() const { return 8 + shape.keyBytes; }
    uint64_t indexAt() const;
    uint64_t usesAt() const { return shape.list ? indexAt() + slots() * 8 : heapAt(); }
    uint64_t useStride() const { return shape.list ? 4 : unitBytes; }
    uint64_t ringAt() const {
        return indexAt() + slots() * 8 + (uint64_t{units} * 4 * shape.list + 63) / 64 * 64;
    }
    uint64_t heapAt() const { return (ringAt() + ringRecords * recordBytes() + 63) / 64 * 64; }
    uint64_t totalBytes() const { return heapAt() + uint64_t{units} * unitBytes; }
    uint32_t unitsFor(uint64_t bytes) const {
        return static_cast<uint32_t>((shape.blockBytes(bytes) + unitBytes - 1) / unitBytes);
    }
    // Units in which a block can begin, so that its lead and key lie within the heap.
    uint32_t beginnings() const { return units - unitsFor(0) + 1; }
    bool operator==(const Geometry&) const = default;
};

// The part that never changes while a segment has its name. A segment gets its name when this part
// is complete.
struct Identity {
    uint64_t magic;
    uint32_t layoutVersion;
    int32_t writerPid;  // for messages only
    uint64_t seed;      // of the hash
    Geometry geometry;
    uint32_t reserved;
};

enum class Phase : uint32_t { mounting = 1, mounted, quiesced };

// Written by the writer only. Each store that readers depend on is a release, each load of theirs
// an acquire; each member says what the pair orders.
struct Header {
    Identity identity;
    // Release: a reader that sees `mounted` sees the words stored before; one that sees `quiesced`,
    // the last.
    std::atomic<uint32_t> phase;
    uint32_t reserved;
    uint64_t wakeup;  // written by pwrite(2) to cause an inotify event; the value has no meaning
    // Number of writers so far. Release: a reader that sees a new writer sees the `head` at its
    // start.
    alignas(64) std::atomic<uint64_t> writers;
    // Number of changes published so far. Release: a reader that sees a number sees these records
    // of the change ring, and every word and block that they refer to.
    std::atomic<uint64_t> head;
    // Number of keys. Relaxed: for display only; nothing is derived from it.
    std::atomic<uint64_t> count;
};

static_assert(std::atomic<uint64_t>::is_always_lock_free && sizeof(std::atomic<uint64_t>) == 8);
static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == 4);
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(Shape) == 16 && sizeof(Geometry) == 36 && sizeof(Identity) == 64);
static_assert(offsetof(Identity, layoutVersion) == 8 && offsetof(Identity, seed) == 16);
static_assert(offsetof(Identity, geometry) == 24 && offsetof(Header, phase) == 64);
static_assert(offsetof(Header, wakeup) == 72 && offsetof(Header, writers) == 128);
static_assert(offsetof(Header, head) == 136 && offsetof(Header, count) == 144);
static_assert(sizeof(Header) == 192);

inline uint64_t Geometry::indexAt() const {
    return sizeof(Header);
}

// A word of the index: the unit at which the key's block begins, the unit's use counter when the
// block was written, and eight bits of the hash, which avoid most comparisons with other keys. Use
// counters begin at 1, so that no word in use is 0, which marks an empty slot.
struct Word {
    uint64_t bits;

    static Word of(uint32_t unit, uint32_t use, uint8_t tag) {
        return {uint64_t{use} << 32 | uint64_t{tag} << 24 | unit};
    }
    bool empty() const { return bits == 0; }
    uint32_t unit() const { return bits & (maxUnits - 1); }
    uint8_t tag() const { return static_cast<uint8_t>(bits >> 24); }
    uint32_t use() const { return static_cast<uint32_t>(bits >> 32); }
    bool operator==(const Word&) const = default;
};

inline uint64_t hashOf(const uint64_t* key, uint32_t words, uint64_t seed) {
    for (uint32_t i = 0; i < words; ++i) seed = Netz::hashMix(seed, key[i]);
    return seed;
}
inline uint8_t tagOf(uint64_t hash) {
    return static_cast<uint8_t>(hash >> 56);
}

}  // namespace Shard
