// The only writer of a shared map; Map.h gives it typed keys and values.
//
// A write or removal is visible to lookups at once, by one store. Readers are notified of changes
// when the writer commits. A commit costs two system calls and a comparison of the index, so commit
// once for changes that belong together. The writer never waits for a reader. It is used by one
// thread.
//
// An orderly stop notifies the readers and frees the name. After a writer has died, the next one
// with the same shape and capacity finds every value that was written; an index word that was
// damaged since affects its own key only.
//
// A living writer reads nothing of the segment but use counters: its decisions follow from a
// private copy of the index. Another process of the same user can therefore damage the segment but
// not the writer, and a commit detects what differs from the copy.
//
// A child forked without exec may destroy its copy of a writer without effect; but while the child
// lives it shares the lock and keeps the next writer out.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "platform/Export.h"
#include "platform/shard/Extents.h"
#include "platform/shard/Segment.h"

namespace Shard {

class VEL_EXPORT MapWriter {
  public:
    // Raises Vel::Error as Segment::own and Geometry::of do.
    MapWriter(const Namespace& space, std::string map, const Shape& shape, uint32_t capacity,
              uint64_t listBytes = 0);
    ~MapWriter();
    MapWriter(const MapWriter&) = delete;
    MapWriter& operator=(const MapWriter&) = delete;

    uint64_t count() const { return count_; }

    // Tells readers that the map is complete.
    void mountComplete();
    // Notifies readers of the changes since the last commit. False if another process has
    // truncated, damaged, unlinked or replaced the segment: a new, empty one then has its name;
    // write everything again and end with mountComplete(). Raises Vel::Error if no new segment can
    // be made; the next commit then tries again.
    [[nodiscard]] bool commit();
    // Removes all keys.
    void clear();
    // Orderly stop: readers are notified and the name is free. The writer may only be destroyed
    // then.
    void quiesce();

    const std::shared_ptr<Segment>& segment() const { return segment_; }

  protected:
    // Inserts or replaces; raises Vel::Error if the list is too long or the map is full.
    template <Shape shape>
    void put(const uint64_t* key, const void* value, uint64_t bytes);
    bool erase(const uint64_t* key);
    template <Shape shape, class Place>
    Lookup find(const uint64_t* key, Place&& place) const {
        return view_.find<shape>(key, place);
    }

  private:
    static constexpr uint64_t nowhere = UINT64_MAX;

    void open();
    bool keep(uint64_t slot, std::vector<bool>& used);
    bool intact() const;
    uint32_t keyWords() const { return geometry_.shape.keyWords(); }
    // The slot that holds the key, else the first empty slot for it, else `nowhere`.
    uint64_t slotOf(const uint64_t* key, uint32_t keyWords, uint64_t hash) const;
    void wordIs(uint64_t slot, Word word);
    uint32_t room(uint64_t slot, uint32_t units);
    uint32_t roomElsewhere(uint64_t slot, uint32_t units);
    template <Shape shape>
    uint32_t reuse(uint32_t unit, uint32_t units);
    void countIs(uint64_t count);
    [[noreturn]] void full() const;
    [[noreturn]] void tooLong(uint64_t bytes) const;
    void noteChange(uint64_t* record, const uint64_t* key, uint32_t keyBytes) {
        storeWord(record, ++change_);
        copyIn(record + 1, key, keyBytes);
    }

    const Namespace space_;
    const std::string map_;
    const Geometry geometry_;
    std::shared_ptr<Segment> segment_;
    View view_;  // of segment_
    Extents extents_;
    std::vector<uint64_t> words_;   // the index as it should be
    std::vector<uint64_t> keys_;    // keyWords() a slot; valid where the slot's word is not empty
    std::vector<uint32_t> units_;   // of the slot's block; valid likewise
    uint64_t count_{0};             // words that are not empty; at most geometry_.capacity
    uint64_t change_{0};            // number of changes so far, committed or not
    uint64_t committed_{0};         // number of changes committed; the header's `head`
    Phase phase_{Phase::mounting};  // the header's
};

inline uint64_t MapWriter::slotOf(const uint64_t* key, uint32_t keyWords, uint64_t hash) const {
    const uint64_t first = view_.home(hash);
    uint64_t empty = nowhere;
    for (uint64_t slot = first; slot < first + maxProbe; ++slot) {
        const Word word{words_[slot]};
        if (word.empty()) {
            empty = std::min(empty, slot);
        } else if (word.tag() == tagOf(hash) &&
                   std::equal(key, key + keyWords, &keys_[slot * keyWords])) {
            return slot;
        }
    }
    return empty;
}

template <Shape shape>
void MapWriter::put(const uint64_t* key, const void* value, uint64_t bytes) {
    if (shape.list && bytes > shape.valueBytes) tooLong(bytes);
    const uint64_t hash = view_.hash(key, shape.keyWords());
    const uint64_t slot = slotOf(key, shape.keyWords(), hash);
    if (slot == nowhere) full();
    const bool fresh = Word{words_[slot]}.empty();
    const uint32_t units = shape.list ? geometry_.unitsFor(bytes) : 1;
    const uint32_t unit = room(slot, units);
    const uint32_t use = reuse<shape>(unit, units);

    uint64_t* const block = view_.block<shape>(unit);
    if constexpr (shape.list) storeWord(block, bytes);
    copyIn(block + 1, key, shape.keyBytes);
    copyIn(block + 1 + shape.keyWords(), value, shape.list ? bytes : shape.valueBytes);
    wordIs(slot, Word::of(unit, use, tagOf(hash)));
    units_[slot] = units;
    if (fresh) std::copy_n(key, shape.keyWords(), &keys_[slot * shape.keyWords()]);
    noteChange(view_.record<shape>(change_), key, shape.keyBytes);
}

// Release: a reader that sees the word sees the block that it refers to.
inline void MapWriter::wordIs(uint64_t slot, Word word) {
    words_[slot] = word.bits;
    view_.slot(slot).store(word.bits, std::memory_order_release);
}

// The place of the new block. The slot's old block has been given back already, but extents given
// back rest: none of it is overwritten before the index word has been replaced.
inline uint32_t MapWriter::room(uint64_t slot, uint32_t units) {
    const Word old{words_[slot]};
    if (!old.empty() && units == units_[slot]) [[likely]] {
        const uint32_t unit = extents_.exchange(old.unit(), units);
        if (unit != Extents::none) [[likely]]
            return unit;
    }
    return roomElsewhere(slot, units);
}

// From here on no reader accepts a copy made from these units: any of them may have been the first
// of an extent. Relaxed load: only the writer stores here. Release: a reader that sees the raised
// counter sees the word that was replaced before; and the copy that follows is ordered after this
// store by its own releases.
template <Shape shape>
uint32_t MapWriter::reuse(uint32_t unit, uint32_t units) {
    const auto raise = [this](uint32_t i) {
        const uint32_t use = view_.use<shape>(i).load(std::memory_order_relaxed) + 1;
        view_.use<shape>(i).store(use ? use : 1, std::memory_order_release);
        return use ? use : 1;
    };
    const uint32_t use = raise(unit);
    for (uint32_t i = unit + 1; i < unit + units; ++i) raise(i);
    return use;
}

}  // namespace Shard
