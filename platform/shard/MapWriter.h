// The one writer of a shared map; the typed face of it is in Map.h.
//
// A put or a removal is visible to lookups at once, by one store. Readers are told of changes when
// the writer commits: commit costs a system call, so commit once for what belongs together. The
// writer never waits for a reader, and readers cannot write what it works on. One thread.
//
// A writer that goes in order says so to its readers and takes the name away. After a writer that
// died, or left, the next one of the same shape and capacity finds everything that was put. A child
// forked without exec shares the writer's lock, and would keep the next writer out.
#pragma once

#include <algorithm>
#include <memory>
#include <string>

#include "platform/Export.h"
#include "platform/shard/Extents.h"
#include "platform/shard/Segment.h"

namespace Shard {

class VEL_EXPORT MapWriter {
  public:
    // Raises Vel::Error as Segment::own and Geometry::of do.
    MapWriter(const Namespace& space, std::string map, const Shape& shape, uint32_t capacity,
              uint64_t listBytes = 0);
    // A map of this process alone.
    MapWriter(std::string map, const Shape& shape, uint32_t capacity, uint64_t listBytes = 0);
    ~MapWriter();
    MapWriter(const MapWriter&) = delete;
    MapWriter& operator=(const MapWriter&) = delete;

    // The map's keys are those of a writer before; readers go on reading them meanwhile.
    bool tookOver() const { return !segment_->fresh(); }
    uint64_t count() const { return table_.header().count.load(std::memory_order_relaxed); }

    // Tells readers that the map now holds all that it should.
    void mountComplete();
    // Tells readers of the changes since the last commit. Raises Vel::Error when the segment has
    // been cut by another process: nobody can read it any more, make a new writer.
    void commit();
    // Removes all keys.
    void clear();
    // Orderly stop: readers are told, the name is free, the writer can only be destroyed.
    void quiesce();
    // Goes without a word and keeps the name, for a writer that comes soon.
    void leave();

    const std::shared_ptr<Segment>& segment() const { return segment_; }

  protected:
    // Inserts or replaces; raises Vel::Error when the list is too long or the map is full.
    template <Shape shape>
    void put(const uint64_t* key, const void* value, uint64_t bytes);
    bool erase(const uint64_t* key);
    template <Shape shape, class Place>
    Lookup find(const uint64_t* key, Place&& place) const {
        return table_.find<shape>(key, place);
    }

  private:
    static constexpr uint64_t nowhere = UINT64_MAX;

    bool takeOver();
    bool wellFormed(Word word) const;
    bool account(std::vector<bool>& used, uint64_t& doubled) const;
    Word wordAt(uint64_t slot) const { return {table_.slot(slot).load(std::memory_order_relaxed)}; }
    uint64_t homeOf(Word word) const;
    uint64_t bytesOf(Word word) const;
    uint32_t unitsOf(Word word) const { return table_.geometry().unitsFor(bytesOf(word)); }
    // The key's slot, else the empty slot where it goes, else `nowhere`.
    uint64_t slotOf(const uint64_t* key) const;
    template <class BlockOf>
    uint64_t probe(const uint64_t* key, uint32_t keyWords, uint64_t hash,
                   const BlockOf& blockOf) const;
    uint32_t room(Word old, uint32_t units, uint32_t oldUnits);
    uint32_t roomElsewhere(Word old, uint32_t units, uint32_t oldUnits);
    template <Shape shape>
    uint32_t reuse(uint32_t unit, uint32_t units);
    void closeGap(uint64_t hole);
    void countIs(uint64_t count) { table_.header().count.store(count, std::memory_order_relaxed); }
    [[noreturn]] void full() const;
    [[noreturn]] void tooLong(uint64_t bytes) const;
    void noteChange(uint64_t* record, const uint64_t* key, uint32_t keyBytes) {
        storeWord(record, ++change_);
        copyIn(record + 1, key, keyBytes);
    }

    std::string map_;
    std::shared_ptr<Segment> segment_;
    Table table_;
    Extents extents_;
    uint64_t change_{0};  // changes so far, committed or not
};

template <class BlockOf>
uint64_t MapWriter::probe(const uint64_t* key, uint32_t keyWords, uint64_t hash,
                          const BlockOf& blockOf) const {
    const uint64_t first = table_.home(hash);
    for (uint64_t slot = first; slot < first + maxProbe; ++slot) {
        const Word word = wordAt(slot);
        if (word.empty()) return slot;
        if (word.tag() == tagOf(hash) && std::equal(key, key + keyWords, blockOf(word.unit()))) {
            return slot;
        }
    }
    return nowhere;
}

template <Shape shape>
void MapWriter::put(const uint64_t* key, const void* value, uint64_t bytes) {
    if (shape.list && bytes > shape.valueBytes) tooLong(bytes);
    const uint64_t hash = table_.hash(key, shape.keyWords());
    const uint64_t slot = probe(key, shape.keyWords(), hash,
                                [this](uint32_t unit) { return table_.block<shape>(unit) + 1; });
    if (slot == nowhere) full();
    const Word old = wordAt(slot);
    const uint32_t units = shape.list ? table_.geometry().unitsFor(bytes) : 1;
    const uint32_t unit = room(old, units, shape.list && !old.empty() ? unitsOf(old) : 1);
    const uint32_t use = reuse<shape>(unit, units);

    uint64_t* const block = table_.block<shape>(unit);
    if constexpr (shape.list) storeWord(block, bytes);
    copyIn(block + 1, key, shape.keyBytes);
    copyIn(block + 1 + shape.keyWords(), value, shape.list ? bytes : shape.valueBytes);
    table_.slot(slot).store(Word::of(unit, use, tagOf(hash)).bits, std::memory_order_release);
    noteChange(table_.record<shape>(change_), key, shape.keyBytes);
}

// Where the new block goes. The old one is given back already, but nothing is taken until the
// index word has turned away from it.
inline uint32_t MapWriter::room(Word old, uint32_t units, uint32_t oldUnits) {
    if (!old.empty() && units == oldUnits) [[likely]] {
        const uint32_t unit = extents_.exchange(old.unit(), units);
        if (unit != Extents::none) [[likely]]
            return unit;
    }
    return roomElsewhere(old, units, oldUnits);
}

// From here on no reader accepts what it may be copying from these units: any of them may have been
// the first of an extent.
template <Shape shape>
uint32_t MapWriter::reuse(uint32_t unit, uint32_t units) {
    const auto raise = [this](uint32_t i) {
        const uint32_t use = table_.use<shape>(i).load(std::memory_order_relaxed) + 1;
        table_.use<shape>(i).store(use ? use : 1, std::memory_order_release);
        return use ? use : 1;
    };
    const uint32_t use = raise(unit);
    for (uint32_t i = unit + 1; i < unit + units; ++i) raise(i);
    return use;
}

}  // namespace Shard
