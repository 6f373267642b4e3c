// A reader of a shared map, in any process; the typed face of it is in Map.h.
//
// A reader may be made before there is a writer and stays through writers' comings and goings. It
// maps read-only and writes nothing, so nobody can tell that it is there. One thread.
//
// The way to follow a map: update(), look at the state and the changes, wait until fd() is
// readable (or await), and again from update(). Whatever happens after an update makes fd()
// readable: a commit, the mount's completion, an orderly stop, a writer's death, a new segment.
// Lookups need none of that and show each put at once.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/Export.h"
#include "platform/shard/MapWriter.h"
#include "platform/shard/Watch.h"

namespace Shard {

enum class MapState {
    absent,    // no segment of that name; nothing is found
    refused,   // there is one, but it cannot be read: refusal() says why; nothing is found
    mounting,  // there is a writer that has not put everything yet
    mounted,   // complete
    quiesced   // the writer has gone in order; its last values can still be read
};

enum class News {
    none,
    keys,       // each key that changed was told
    everything  // a first look, a new writer, or too many changes: walk the map
};

class VEL_EXPORT MapReader {
  public:
    // Follows a map by name. The map's state is absent until the first update. Raises Vel::Error
    // when the name is none or the kernel gives no watch.
    MapReader(const Namespace& space, const std::string& map, const Shape& shape);
    // Reads the map of a writer in the same process, through the same mapping. There is nothing to
    // wait on, and the reader ends up quiesced with its writer.
    explicit MapReader(const MapWriter& writer);
    ~MapReader();
    MapReader(const MapReader&) = delete;
    MapReader& operator=(const MapReader&) = delete;

    // Mounts what there is to mount.
    MapState update();
    MapState state() const { return state_; }
    const std::string& refusal() const { return refusal_; }
    // Whether somebody is there to write, as the kernel knows it.
    bool writerAlive() const { return segment_ && segment_->writerAlive(); }
    uint64_t count() const { return segment_ ? table_.header().count.load() : 0; }

    // Readable when there is something to update; -1 for a reader in the writer's process.
    int fd() const { return watch_ ? watch_->fd() : -1; }
    // Waits until fd() is readable. True unless the time ran out.
    bool await(std::chrono::milliseconds timeout) const;

    // Places where the segment contradicted itself, each a failed lookup or a refused segment. The
    // handler is told of each as it is met.
    uint64_t corruptions() const { return corruptions_; }
    void corruptionHandlerIs(std::function<void(const std::string& what)> handler) {
        corruptionHandler_ = std::move(handler);
    }

  protected:
    template <Shape shape, class Place>
    Lookup find(const uint64_t* key, Place&& place) const {
        if (!segment_) [[unlikely]]
            return Lookup::absent;
        const Lookup result = table_.find<shape>(key, place);
        if (result == Lookup::corrupt) [[unlikely]]
            corruption("an entry contradicts the index");
        return result;
    }
    // Calls `visit(key)` after each entry that was copied to `key` and `place`. False when an entry
    // was left out because it could not be read.
    template <Shape shape, class Place, class Visit>
    bool walk(uint64_t* key, Place&& place, Visit&& visit) const;
    // Calls `visit(key)` for each change since the last call; see News.
    template <Shape shape, class Visit>
    News changes(Visit&& visit);

  private:
    MapState stateOfPhase() const;
    void remount();
    void drop();
    [[gnu::cold, gnu::noinline]] void corruption(const char* what) const;

    std::optional<Namespace> space_;
    std::string map_;
    Shape shape_;
    std::unique_ptr<Watch> watch_;
    std::shared_ptr<Segment> segment_;
    Table table_;
    MapState state_{MapState::absent};
    std::string refusal_;
    uint64_t seenWriters_{0};
    uint64_t seen_{0};  // changes
    mutable uint64_t corruptions_{0};
    std::function<void(const std::string&)> corruptionHandler_;
};

template <Shape shape, class Place, class Visit>
bool MapReader::walk(uint64_t* key, Place&& place, Visit&& visit) const {
    if (!segment_) return true;
    bool complete = true;
    const std::shared_ptr<Segment> kept = segment_;
    const Table table = table_;
    for (uint64_t slot = table.geometry().slots(); slot-- > 0;) {
        switch (table.read<shape>(slot, key, place)) {
            case Lookup::found:
                visit(key);
                break;
            case Lookup::absent:
                break;
            case Lookup::corrupt:
                corruption("a slot of the index contradicts its entry");
                [[fallthrough]];
            case Lookup::busy:
                complete = false;
        }
    }
    return complete;
}

template <Shape shape, class Visit>
News MapReader::changes(Visit&& visit) {
    if (!segment_) return News::none;
    const std::shared_ptr<Segment> kept = segment_;
    const Table& table = kept->table();
    const uint64_t writers = table.header().writers.load(std::memory_order_acquire);
    const uint64_t head = table.header().head.load(std::memory_order_acquire);
    const uint64_t ahead = head - seen_;
    if (writers != seenWriters_ || ahead > table.geometry().ringRecords) {
        seenWriters_ = writers;
        seen_ = head;
        return News::everything;
    }
    for (uint64_t i = 0; i < ahead; ++i) {
        const uint64_t* const record = table.record<shape>(seen_);
        uint64_t key[shape.keyWords()];
        copyOut(key, record + 1, shape.keyBytes);
        if (loadWord(record) != seen_ + 1) {
            seen_ = table.header().head.load(std::memory_order_acquire);
            return News::everything;
        }
        ++seen_;
        visit(static_cast<const uint64_t*>(key));
    }
    return ahead ? News::keys : News::none;
}

}  // namespace Shard
