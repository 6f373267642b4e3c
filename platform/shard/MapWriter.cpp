#include "platform/shard/MapWriter.h"

#include "platform/netz/Error.h"

namespace Shard {

MapWriter::MapWriter(const Namespace& space, std::string map, const Shape& shape, uint32_t capacity,
                     uint64_t listBytes)
    : space_(space),
      map_(std::move(map)),
      geometry_(Geometry::of(shape, capacity, listBytes)),
      extents_(geometry_.unitsFor(shape.valueBytes)) {
    open();
}

MapWriter::~MapWriter() {
    quiesce();
}

// Takes over the segment of that name, or begins with an empty one.
void MapWriter::open() {
    segment_ = Segment::own(space_, map_, geometry_);
    view_ = segment_->view();
    phase_ = Phase::mounting;
    // Relaxed: this is the only writer.
    committed_ = change_ = view_.header().head.load(std::memory_order_relaxed);
    words_.assign(geometry_.slots(), 0);
    keys_.assign(geometry_.slots() * keyWords(), 0);
    units_.assign(geometry_.slots(), 0);
    count_ = 0;
    std::vector<bool> used(geometry_.units);
    for (uint64_t slot = 0; slot < geometry_.slots(); ++slot) {
        if (!keep(slot, used)) view_.slot(slot).store(0, std::memory_order_release);
    }
    countIs(count_);
    extents_.reset(used);
}

// Takes over the slot's word if a writer completed it and no other word contradicts it.
bool MapWriter::keep(uint64_t slot, std::vector<bool>& used) {
    // Relaxed: the writer that stored this is dead, and this writer acquired its lock afterwards.
    const Word word{view_.slot(slot).load(std::memory_order_relaxed)};
    if (word.empty() || word.unit() >= geometry_.beginnings() || count_ >= geometry_.capacity ||
        word.use() != view_.use(word.unit()).load(std::memory_order_relaxed)) {
        return false;
    }
    const bool list = geometry_.shape.list != 0;
    const uint64_t bytes = list ? *view_.block(word.unit()) : geometry_.shape.valueBytes;
    if (bytes > geometry_.shape.valueBytes) return false;
    const uint32_t units = geometry_.unitsFor(bytes), end = word.unit() + units;
    if (end > geometry_.units) return false;

    uint64_t* const key = &keys_[slot * keyWords()];
    copyOut(key, view_.key(word.unit()), geometry_.shape.keyBytes);
    const uint64_t hash = view_.hash(key, keyWords());
    if (word.tag() != tagOf(hash) || slot - view_.home(hash) >= maxProbe) return false;
    const uint64_t twin = slotOf(key, keyWords(), hash);
    if (twin == nowhere || words_[twin] != 0) return false;
    for (uint32_t unit = word.unit(); unit < end; ++unit) {
        if (used[unit]) return false;
    }
    std::fill(used.begin() + word.unit(), used.begin() + end, true);
    words_[slot] = word.bits;
    units_[slot] = units;
    ++count_;
    return true;
}

void MapWriter::mountComplete() {
    segment_->phaseIs(phase_ = Phase::mounted);
    segment_->wakeReaders();
}

bool MapWriter::commit() {
    if (!intact()) {
        quiesce();  // makes the readers of this segment look for the next one
        open();
        clear();
        return false;
    }
    if (change_ == committed_) return true;
    view_.header().head.store(committed_ = change_, std::memory_order_release);
    segment_->wakeReaders();
    return true;
}

// Relaxed, and the index without atomic loads: no other process is supposed to store here.
bool MapWriter::intact() const {
    const Header& header = view_.header();
    return segment_->owned() && segment_->standing() == Standing::named &&
           segment_->identityIntact() &&
           header.phase.load(std::memory_order_relaxed) == static_cast<uint32_t>(phase_) &&
           header.head.load(std::memory_order_relaxed) == committed_ &&
           std::memcmp(&view_.slot(0), words_.data(), words_.size() * sizeof words_[0]) == 0;
}

void MapWriter::quiesce() {
    if (!segment_->owned()) return;
    segment_->phaseIs(Phase::quiesced);
    segment_->unlink();
    segment_->disown();
}

void MapWriter::full() const {
    throw Vel::Error("shared map '" + map_ + "' is full: it holds " + std::to_string(count_) +
                     " keys of at most " + std::to_string(geometry_.capacity));
}

void MapWriter::tooLong(uint64_t bytes) const {
    throw Vel::Error("shared map '" + map_ + "': a list of " + std::to_string(bytes) +
                     " bytes exceeds the limit of " + std::to_string(geometry_.shape.valueBytes));
}

void MapWriter::countIs(uint64_t count) {
    count_ = count;
    view_.header().count.store(count, std::memory_order_relaxed);
}

bool MapWriter::erase(const uint64_t* key) {
    const uint64_t slot = slotOf(key, keyWords(), view_.hash(key, keyWords()));
    const Word old = slot == nowhere ? Word{0} : Word{words_[slot]};
    if (old.empty()) return false;
    wordIs(slot, {0});
    extents_.giveBack(old.unit(), units_[slot]);
    countIs(count_ - 1);
    noteChange(view_.record(change_), key, geometry_.shape.keyBytes);
    return true;
}

void MapWriter::clear() {
    for (uint64_t slot = 0; slot < words_.size(); ++slot) {
        const Word old{words_[slot]};
        if (old.empty()) continue;
        wordIs(slot, {0});
        extents_.giveBack(old.unit(), units_[slot]);
        noteChange(view_.record(change_), &keys_[slot * keyWords()], geometry_.shape.keyBytes);
    }
    countIs(0);
}

uint32_t MapWriter::roomElsewhere(uint64_t slot, uint32_t units) {
    const Word old{words_[slot]};
    if (old.empty() && count_ >= geometry_.capacity) full();
    uint32_t unit = extents_.take(units);
    if (unit == Extents::none) {  // join neighbours that were freed one by one
        std::vector<bool> used(geometry_.units);
        for (uint64_t i = 0; i < words_.size(); ++i) {
            const Word word{words_[i]};
            if (!word.empty()) std::fill_n(used.begin() + word.unit(), units_[i], true);
        }
        extents_.reset(used);
        unit = extents_.take(units);
    }
    if (unit == Extents::none) {
        throw Vel::Error("shared map '" + map_ + "' has no room for a list of " +
                         std::to_string(units * geometry_.unitBytes) + " bytes");
    }
    if (old.empty()) {
        countIs(count_ + 1);
    } else {
        extents_.giveBack(old.unit(), units_[slot]);
    }
    return unit;
}

}  // namespace Shard
