// Lookups in a mapped segment, used by readers in any process and by the writer. A View holds
// pointers only; the Segment that owns the mapping outlives it.
//
// Nothing read from a segment is trusted: indices are checked against the geometry taken at mount,
// each loop is bounded, and a copy is accepted only if the use counter of its unit still is the one
// in the index word, which proves that the writer has not begun to overwrite what was copied.
//
// An empty slot does not end a search, so a key never has to move within the index, and a damaged
// word affects its own key only.
#pragma once

#include "platform/shard/Copy.h"
#include "platform/shard/Layout.h"

namespace Shard {

enum class Lookup {
    found,
    absent,
    busy,    // the writer overwrote the entry during every attempt: try again
    corrupt  // a word or block that may belong to the key is damaged
};

class View {
  public:
    View() = default;
    View(std::byte* base, const Geometry& geometry, uint64_t seed, const std::atomic<bool>& cut)
        : header_(reinterpret_cast<Header*>(base)),
          index_(reinterpret_cast<Slot*>(base + geometry.indexAt())),
          uses_(base + geometry.usesAt()),
          ring_(base + geometry.ringAt()),
          heap_(base + geometry.heapAt()),
          geometry_(geometry),
          beginnings_(geometry.beginnings()),
          seed_(seed),
          cut_(&cut) {}

    using Slot = std::atomic<uint64_t>;

    Header& header() const { return *header_; }
    const Geometry& geometry() const { return geometry_; }
    Slot& slot(uint64_t i) const { return index_[i]; }
    std::atomic<uint32_t>& use(uint32_t unit) const { return useAt(unit * geometry_.useStride()); }
    template <Shape shape>
    std::atomic<uint32_t>& use(uint32_t unit) const {
        if constexpr (shape.list) return useAt(uint64_t{unit} * 4);
        return *reinterpret_cast<std::atomic<uint32_t>*>(block<shape>(unit));
    }
    uint64_t* block(uint32_t unit) const { return blockAt(unit * uint64_t{geometry_.unitBytes}); }
    template <Shape shape>
    uint64_t* block(uint32_t unit) const {
        return blockAt(uint64_t{unit} * shape.unitBytes());
    }
    const uint64_t* key(uint32_t unit) const { return block(unit) + 1; }
    // A record of the change ring: {number of the change, key}.
    uint64_t* record(uint64_t change) const {
        const uint64_t at = change & (geometry_.ringRecords - 1);
        return reinterpret_cast<uint64_t*>(ring_ + at * geometry_.recordBytes());
    }
    template <Shape shape>
    uint64_t* record(uint64_t change) const {
        const uint64_t at = change & (geometry_.ringRecords - 1);
        return reinterpret_cast<uint64_t*>(ring_ + at * (8 + shape.keyBytes));
    }
    uint64_t hash(const uint64_t* key, uint32_t words) const { return hashOf(key, words, seed_); }
    uint64_t home(uint64_t hash) const { return hash & (geometry_.homes - 1); }

    // Copies the value of `key` to the address that `place(bytes)` returns. The content there is
    // undefined after any result but `found`.
    template <Shape shape, class Place>
    Lookup find(const uint64_t* key, Place&& place) const {
        const uint64_t hash = this->hash(key, shape.keyWords());
        const Lookup result = findOnce<shape>(key, hash, place);
        if (result != Lookup::busy) [[likely]]
            return result;
        return findAgain<shape>(key, hash, place);
    }

    // Copies key and value of the slot. A walk over all slots visits every entry that is present
    // throughout exactly once, since no entry changes its slot.
    template <Shape shape, class Place>
    Lookup read(uint64_t slot, uint64_t* key, Place&& place) const {
        for (int attempt = 0; attempt < maxAttempts; ++attempt) {
            // Acquire: the block is read after the word that refers to it.
            const Word word{index_[slot].load(std::memory_order_acquire)};
            if (word.empty()) return Lookup::absent;
            const auto take = [&](const uint64_t* stored) {
                copyOut(key, stored, shape.keyBytes);
                return true;
            };
            const Lookup result = visit<shape>(index_[slot], word, take, place);
            if (result != Lookup::busy) return result;
        }
        return Lookup::busy;
    }

  private:
    std::atomic<uint32_t>& useAt(uint64_t bytes) const {
        return *reinterpret_cast<std::atomic<uint32_t>*>(uses_ + bytes);
    }
    uint64_t* blockAt(uint64_t bytes) const { return reinterpret_cast<uint64_t*>(heap_ + bytes); }
    // Relaxed: set by a signal handler on this thread, in the middle of the copy.
    bool cut() const { return cut_->load(std::memory_order_relaxed); }
    // Exhausted only if the writer rewrites one key continuously while the machine keeps suspending
    // the reader.
    static constexpr int maxAttempts = 64;

    template <Shape shape, class Place>
    [[gnu::cold, gnu::noinline]] Lookup findAgain(const uint64_t* key, uint64_t hash,
                                                  Place& place) const {
        Lookup result = Lookup::busy;
        for (int attempt = 1; attempt < maxAttempts && result == Lookup::busy; ++attempt)
            result = findOnce<shape>(key, hash, place);
        return result;
    }

    template <Shape shape, class Place>
    Lookup findOnce(const uint64_t* key, uint64_t hash, Place& place) const {
        const uint8_t tag = tagOf(hash);
        const Slot* const first = index_ + home(hash);
        Lookup unlessFound = Lookup::absent;
        for (const Slot* slot = first; slot != first + maxProbe; ++slot) {
            // Acquire: the block is read after the word that refers to it.
            const Word word{slot->load(std::memory_order_acquire)};
            if (word.tag() != tag || word.empty()) continue;
            const auto same = [key](const uint64_t* stored) {
                for (uint32_t i = 0; i < shape.keyWords(); ++i) {
                    if (loadWord(stored + i) != key[i]) return false;
                }
                return true;
            };
            const Lookup result = visit<shape>(*slot, word, same, place);
            if (result == Lookup::found || result == Lookup::busy) [[likely]]
                return result;
            if (result == Lookup::corrupt) unlessFound = result;
        }
        return cut() ? Lookup::corrupt : unlessFound;
    }

    // The value of the block that `word`, found in `slot`, refers to, if `wanted(its key)`.
    // `absent` if not wanted; `busy` if the block was reused meanwhile.
    template <Shape shape, class Wanted, class Place>
    Lookup visit(const Slot& slot, Word word, const Wanted& wanted, Place& place) const {
        const uint32_t unit = word.unit();
        if (unit >= beginnings_) [[unlikely]]
            return Lookup::corrupt;
        const uint64_t* const lead = block<shape>(unit);
        const uint64_t* const stored = lead + 1;
        uint64_t bytes = shape.valueBytes;
        if constexpr (shape.list) {
            bytes = loadWord(lead);
            if (bytes > shape.valueBytes ||
                uint64_t{unit} + geometry_.unitsFor(bytes) > geometry_.units) [[unlikely]]
                return verdict<shape>(slot, word, Lookup::corrupt);
        }
        if (!wanted(stored)) [[unlikely]]
            return verdict<shape>(slot, word, Lookup::absent);
        copyOut(place(bytes), stored + shape.keyWords(), bytes);
        return verdict<shape>(slot, word, Lookup::found);
    }

    // Returns `result`, which was derived from the block that `word` refers to, if the block was
    // valid all the time. The acquire loads, or the fence, of the copy order this load after the
    // copy. Acquire is for replacedOrDamaged(), and pairs with the release in MapWriter::reuse.
    template <Shape shape>
    Lookup verdict(const Slot& slot, Word word, Lookup result) const {
        if (use<shape>(word.unit()).load(std::memory_order_acquire) != word.use()) [[unlikely]]
            return replacedOrDamaged(slot, word);
        return cut() ? Lookup::corrupt : result;
    }
    // The writer replaces the word that refers to a block before it overwrites the block, so a word
    // that still refers to one with another counter is damaged. Acquire: the counter was loaded
    // with acquire, so this load cannot see an older word than the one replaced before the counter
    // was raised.
    [[gnu::cold, gnu::noinline]] Lookup replacedOrDamaged(const Slot& slot, Word word) const {
        const bool replaced = slot.load(std::memory_order_acquire) != word.bits;
        return replaced && !cut() ? Lookup::busy : Lookup::corrupt;
    }

    // Pointers into one mapping of geometry_.totalBytes(). Private copies (geometry, seed) were
    // checked at mount and are never read from the segment again.
    Header* header_{nullptr};
    Slot* index_{nullptr};
    std::byte* uses_{nullptr};
    std::byte* ring_{nullptr};
    std::byte* heap_{nullptr};
    Geometry geometry_{};
    uint32_t beginnings_{0};  // upper bound of a word's unit
    uint64_t seed_{0};
    const std::atomic<bool>* cut_{nullptr};  // of the mapping's BusGuard
};

}  // namespace Shard
