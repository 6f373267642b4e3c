// The layout of a segment: header, index, use counters, change ring, heap, in this order, each at
// an offset that follows from the geometry in the header. docs/shared-memory.md draws it and says
// how a reader and a writer work on it. Whoever changes anything here raises `layoutVersion`.
//
// One 64-bit word of the index stands for one key. Everything that a write changes becomes visible
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
constexpr uint32_t maxProbe = 64;        // slots in which a key may stand, from its home on
constexpr uint32_t maxUnits = 1U << 24;  // limited by the bits of Word::unit
constexpr uint32_t maxKeyBytes = 256;    // including padding
constexpr uint32_t maxValueBytes = 1U << 24;

// What a map holds, known to both sides at compile time.
struct Shape {
    uint32_t keyBytes;    // padded with zeros to whole words
    uint32_t valueBytes;  // of a value; of the longest list where values are lists
    uint32_t schema;      // raised by the value type's owner when its fields change
    uint32_t list;        // 1: a value takes as many bytes as it needs, up to valueBytes

    constexpr uint32_t keyWords() const { return keyBytes / 8; }
    // A block is {lead, key, value}. The lead is the value's length in bytes in a list map, whose
    // blocks begin at any unit; else it is the use counter of the block's only unit.
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
    uint32_t capacity;     // most keys
    uint32_t homes;        // slots that a key can hash to, a power of two; maxProbe more follow
    uint32_t ringRecords;  // a power of two
    uint32_t unitBytes;    // the heap is allocated in units of this size
    uint32_t units;

    // `listBytes`: what the values of a list map may take together. Raises Vel::Error when the map
    // would exceed what the layout can number.
    static Geometry of(const Shape& shape, uint32_t capacity, uint64_t listBytes);
    // Whether `of` could have made these numbers. REQUIRED before anything below is computed.
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
    // Units in which a block can begin: its lead and its key then lie within the heap.
    uint32_t beginnings() const { return units - unitsFor(0) + 1; }
    bool operator==(const Geometry&) const = default;
};

// What never changes while a segment has its name. A segment gets its name when this is complete.
struct Identity {
    uint64_t magic;
    uint32_t layoutVersion;
    int32_t writerPid;  // for messages only
    uint64_t seed;      // of the hash
    Geometry geometry;
    uint32_t reserved;
};

enum class Phase : uint32_t { mounting = 1, mounted, quiesced };

// Written by the writer only. Each store that readers act upon is a release, each load of theirs an
// acquire; what the pair orders is said at the member.
struct Header {
    Identity identity;
    // Release: whoever sees `mounted` sees the words put before; whoever sees `quiesced`, the last.
    std::atomic<uint32_t> phase;
    uint32_t reserved;
    uint64_t wakeup;  // written by pwrite(2) to cause an inotify event; its value means nothing
    // Writers so far. Release: whoever sees a new one sees the `head` at which it began.
    alignas(64) std::atomic<uint64_t> writers;
    // Changes published so far. Release: whoever sees it sees these records of the ring, and every
    // word and block that they are about.
    std::atomic<uint64_t> head;
    // Keys. Relaxed: for people; nothing is derived from it.
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

// A word of the index: the unit where the key's block begins, the unit's use counter when the
// block was written, and eight bits of the hash that spare most comparisons with other keys. Use
// counters begin at 1, so that no word in use is 0, which is the empty slot.
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
