// The layout of a segment: header, index, use counters, change ring, heap, in this order, each at
// an offset that follows from the geometry in the header. docs/shared-memory.md draws it and says
// how a reader and a writer work on it. Whoever changes anything here raises `layoutVersion`.
//
// One 64-bit word of the index stands for one key. Everything that a write changes becomes visible
// by one store of that word, so there is no half-written state for a writer to die in.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "platform/Export.h"
#include "platform/netz/Hash.h"

namespace Shard {

constexpr uint64_t magic = 0x31454c4254444853;  // "SHDTBLE1"
constexpr uint32_t layoutVersion = 1;
constexpr uint32_t maxProbe = 128;       // a key lies within so many slots from its home
constexpr uint32_t maxUnits = 1U << 24;  // as many as a word can number
constexpr uint32_t maxKeyBytes = 256;    // of keys, padded
constexpr uint32_t maxValueBytes = 1U << 24;

// What a map holds, known to both sides at compile time.
struct Shape {
    uint32_t keyBytes;    // padded with zeros to whole words
    uint32_t valueBytes;  // of a value; of the longest list where values are lists
    uint32_t schema;      // raised by the value type's owner when its fields change
    uint32_t list;        // 1: a value takes as many bytes as it needs, up to valueBytes

    constexpr uint32_t keyWords() const { return keyBytes / 8; }
    // A block is {lead, key, value}. The lead is the value's length in bytes in a list map, whose
    // blocks begin anywhere; else it is the use counter of the block's unit.
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
    uint32_t capacity;     // keys at most
    uint32_t homes;        // slots a key can hash to, a power of two; maxProbe more follow
    uint32_t ringRecords;  // a power of two
    uint32_t unitBytes;    // the heap is handed out in these
    uint32_t units;

    // `listBytes`: how much the values of a list map may take together. Raises Vel::Error when the
    // map would exceed what the layout can number.
    static Geometry of(const Shape& shape, uint32_t capacity, uint64_t listBytes);
    // Whether the numbers are ones `of` could have made; nothing else is safe to compute with.
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
    // Units that a block can begin in: its key, and where there is one its length, lie in the heap.
    uint32_t beginnings() const { return units - unitsFor(0) + 1; }
    bool operator==(const Geometry&) const = default;
};

enum class Phase : uint32_t { making, mounting, mounted, quiesced };

struct Header {
    std::atomic<uint64_t> magic;  // written last
    uint32_t layoutVersion;
    int32_t writerPid;  // for messages only
    uint64_t seed;      // of the hash
    Geometry geometry;
    uint32_t reserved0;
    std::atomic<uint32_t> phase;
    uint32_t reserved1;
    uint64_t bell;  // rung by pwrite(2), so that watchers of the file wake; the value says nothing
    alignas(64) std::atomic<uint64_t> writers;  // writers so far; each new one raises it
    std::atomic<uint64_t> moves;                // raised whenever a word has moved within the index
    std::atomic<uint64_t> head;                 // changes published so far
    std::atomic<uint64_t> count;                // keys
};

static_assert(std::atomic<uint64_t>::is_always_lock_free && sizeof(std::atomic<uint64_t>) == 8);
static_assert(std::atomic<uint32_t>::is_always_lock_free && sizeof(std::atomic<uint32_t>) == 4);
static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(Shape) == 16 && sizeof(Geometry) == 36);
static_assert(offsetof(Header, layoutVersion) == 8 && offsetof(Header, seed) == 16);
static_assert(offsetof(Header, geometry) == 24 && offsetof(Header, phase) == 64);
static_assert(offsetof(Header, bell) == 72 && offsetof(Header, writers) == 128);
static_assert(offsetof(Header, moves) == 136 && offsetof(Header, head) == 144);
static_assert(offsetof(Header, count) == 152 && sizeof(Header) == 192);

inline uint64_t Geometry::indexAt() const {
    return sizeof(Header);
}

// A word of the index: the unit where the key's block begins, the unit's use counter when the
// block was written, and eight bits of the hash that spare most looks at other keys. Use counters
// begin at 1, so that no word in use is 0, which is the empty slot.
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
