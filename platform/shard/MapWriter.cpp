#include "platform/shard/MapWriter.h"

#include <algorithm>

#include "platform/netz/Assert.h"
#include "platform/netz/Error.h"

namespace Shard {

MapWriter::MapWriter(const Namespace& space, std::string map, const Shape& shape, uint32_t capacity,
                     uint64_t listBytes)
    : map_(std::move(map)),
      segment_(Segment::own(space, map_, Geometry::of(shape, capacity, listBytes))),
      table_(segment_->table()),
      extents_(table_.geometry().unitsFor(shape.valueBytes)) {
    if (takeOver()) return;
    // What the writer before left contradicts itself: begin anew, under the same name.
    quiesce();
    segment_ = Segment::own(space, map_, table_.geometry());
    table_ = segment_->table();
    if (!takeOver()) throw Vel::Error("shared map '" + map_ + "': damaged as soon as it is made");
}

MapWriter::MapWriter(std::string map, const Shape& shape, uint32_t capacity, uint64_t listBytes)
    : map_(std::move(map)),
      segment_(Segment::ownPrivate(map_, Geometry::of(shape, capacity, listBytes))),
      table_(segment_->table()),
      extents_(table_.geometry().unitsFor(shape.valueBytes)) {
    const bool empty = takeOver();
    VEL_ASSERT(empty, "takeOver()");
}

MapWriter::~MapWriter() {
    quiesce();
}

void MapWriter::mountComplete() {
    segment_->phaseIs(Phase::mounted);
    segment_->ring();
}

void MapWriter::commit() {
    if (segment_->cut()) {
        throw Vel::Error("shared map '" + map_ + "': its segment was cut by another process");
    }
    if (change_ == table_.header().head.load(std::memory_order_relaxed)) return;
    table_.header().head.store(change_, std::memory_order_release);
    segment_->ring();
}

void MapWriter::quiesce() {
    if (!segment_->owned()) return;
    segment_->phaseIs(Phase::quiesced);
    segment_->unlink();
    segment_->disown();
}

void MapWriter::leave() {
    segment_->disown();
}

void MapWriter::full() const {
    throw Vel::Error("shared map '" + map_ + "' is full: it holds " + std::to_string(count()) +
                     " keys of at most " + std::to_string(table_.geometry().capacity));
}

void MapWriter::tooLong(uint64_t bytes) const {
    throw Vel::Error("shared map '" + map_ + "': a list of " + std::to_string(bytes) +
                     " bytes, where " + std::to_string(table_.geometry().shape.valueBytes) +
                     " are the most");
}

// The key's slot, else the empty slot where it goes, else `nowhere`.
uint64_t MapWriter::slotOf(const uint64_t* key) const {
    const uint32_t keyWords = table_.geometry().shape.keyWords();
    return probe(key, keyWords, table_.hash(key, keyWords),
                 [this](uint32_t unit) { return table_.key(unit); });
}

uint64_t MapWriter::homeOf(Word word) const {
    const uint32_t keyWords = table_.geometry().shape.keyWords();
    return table_.home(table_.hash(table_.key(word.unit()), keyWords));
}

uint64_t MapWriter::bytesOf(Word word) const {
    const Shape& shape = table_.geometry().shape;
    return shape.list ? *table_.block(word.unit()) : shape.valueBytes;
}

bool MapWriter::erase(const uint64_t* key) {
    const Shape& shape = table_.geometry().shape;
    const uint64_t slot = slotOf(key);
    const Word old = slot == nowhere ? Word{0} : wordAt(slot);
    if (old.empty()) return false;
    const uint32_t units = unitsOf(old);
    closeGap(slot);
    extents_.giveBack(old.unit(), units);
    countIs(count() - 1);
    noteChange(table_.record(change_), key, shape.keyBytes);
    return true;
}

// Takes the word out of `hole` and moves up those behind it that probing would no longer reach.
// After each single store every other key is in the index, once or twice, and can be found; a
// reader that may have missed a word on its way sees that `moves` has changed.
void MapWriter::closeGap(uint64_t hole) {
    Header& header = table_.header();
    for (uint64_t next = hole + 1; next < table_.geometry().slots(); ++next) {
        const Word word = wordAt(next);
        if (word.empty()) break;
        if (homeOf(word) > hole) continue;
        table_.slot(hole).store(word.bits, std::memory_order_release);
        header.moves.fetch_add(1, std::memory_order_release);
        hole = next;
    }
    table_.slot(hole).store(0, std::memory_order_release);
}

// From the last slot to the first, so that no key ever stands behind a gap.
void MapWriter::clear() {
    const Shape& shape = table_.geometry().shape;
    for (uint64_t slot = table_.geometry().slots(); slot-- > 0;) {
        const Word word = wordAt(slot);
        if (word.empty()) continue;
        const uint32_t units = unitsOf(word);
        table_.slot(slot).store(0, std::memory_order_release);
        noteChange(table_.record(change_), table_.key(word.unit()), shape.keyBytes);
        extents_.giveBack(word.unit(), units);
    }
    countIs(0);
}

uint32_t MapWriter::roomElsewhere(Word old, uint32_t units, uint32_t oldUnits) {
    if (old.empty() && count() >= table_.geometry().capacity) full();
    uint32_t unit = extents_.take(units);
    if (unit == Extents::none) {
        std::vector<bool> used;
        uint64_t doubled = nowhere;
        account(used, doubled);
        extents_.reset(used);
        unit = extents_.take(units);
    }
    if (unit == Extents::none) {
        throw Vel::Error("shared map '" + map_ + "' has no room for a list of " +
                         std::to_string(units * table_.geometry().unitBytes) + " bytes");
    }
    if (old.empty()) {
        countIs(count() + 1);
    } else {
        extents_.giveBack(old.unit(), oldUnits);
    }
    return unit;
}

// Whether the word names a block that was finished and lies in the heap.
bool MapWriter::wellFormed(Word word) const {
    const Geometry& geometry = table_.geometry();
    return word.unit() < geometry.beginnings() &&
           word.use() == table_.use(word.unit()).load(std::memory_order_relaxed) &&
           bytesOf(word) <= geometry.shape.valueBytes &&
           uint64_t{word.unit()} + unitsOf(word) <= geometry.units;
}

// Marks what the index uses. False when the index contradicts itself. `doubled` is a second slot
// for a word: there is one when a writer died while it moved that word.
bool MapWriter::account(std::vector<bool>& used, uint64_t& doubled) const {
    const Geometry& geometry = table_.geometry();
    const uint32_t keyWords = geometry.shape.keyWords();
    used.assign(geometry.units, false);
    for (uint64_t slot = 0; slot < geometry.slots(); ++slot) {
        const Word word = wordAt(slot);
        if (!word.empty() && !wellFormed(word)) return false;
    }
    for (uint64_t slot = 0; slot < geometry.slots(); ++slot) {
        const Word word = wordAt(slot);
        if (word.empty()) continue;
        const uint64_t* const key = table_.key(word.unit());
        if (word.tag() != tagOf(table_.hash(key, keyWords))) return false;
        const uint64_t reached = slotOf(key);
        if (reached != slot) {
            if (reached == nowhere || wordAt(reached) != word || doubled != nowhere) return false;
            doubled = slot;
            continue;
        }
        for (uint32_t unit = word.unit(); unit < word.unit() + unitsOf(word); ++unit) {
            if (used[unit]) return false;
            used[unit] = true;
        }
    }
    return true;
}

bool MapWriter::takeOver() {
    std::vector<bool> used;
    uint64_t doubled = nowhere;
    if (!account(used, doubled)) return false;
    if (doubled != nowhere) closeGap(doubled);
    uint64_t keys = 0;
    for (uint64_t slot = 0; slot < table_.geometry().slots(); ++slot) {
        keys += !wordAt(slot).empty();
    }
    if (keys > table_.geometry().capacity) return false;
    countIs(keys);
    extents_.reset(used);
    change_ = table_.header().head.load(std::memory_order_relaxed);
    return true;
}

}  // namespace Shard
