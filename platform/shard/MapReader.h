// A reader of a shared map, in any process; Map.h gives it typed keys and values.
//
// A reader may exist before there is a writer, and follows one writer after another. It opens and
// maps the segment read-only, so read access to the run directory and to the map's file suffices. A
// reader is used by one thread.
//
// To follow a map: update(), process the state and the changes, wait until fd() is readable (or
// call await), and repeat. Every event after an update makes fd() readable: a commit, the
// completion of the mount, an orderly stop, a writer's death, a new segment. Lookups need none of
// that and see each write at once.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "platform/Export.h"
#include "platform/shard/FileWatch.h"
#include "platform/shard/MapWriter.h"

namespace Shard {

enum class MapState {
    absent,    // no file has that name; lookups find nothing
    refused,   // the file cannot be read, see refusal(); lookups find nothing
    mounting,  // a writer has begun and has not written everything yet
    mounted,   // complete
    quiesced   // the writer stopped in order; its last values can still be read
};

enum class News {
    none,
    keys,       // the visitor was called for each key that changed
    everything  // first call, a new writer, or more changes than the ring holds: walk the map
};

class VEL_EXPORT MapReader {
  public:
    // Follows a map by name. The map's state is absent until the first update. Raises Vel::Error if
    // the name is invalid or the kernel provides no descriptor.
    MapReader(const Namespace& space, const std::string& map, const Shape& shape);
    // Reads the map of a writer in the same process, through the same mapping. Such a reader has no
    // descriptor to wait on, and stays with the segment that the writer has at this time.
    explicit MapReader(const MapWriter& writer);
    ~MapReader();
    MapReader(const MapReader&) = delete;
    MapReader& operator=(const MapReader&) = delete;

    // Processes what has happened to the segment, and mounts a new segment if one has the name.
    MapState update();
    MapState state() const { return state_; }
    const std::string& refusal() const { return refusal_; }
    // Whether a living process holds the writer's lock.
    bool writerAlive() const { return segment_ && segment_->writerAlive(); }
    uint64_t count() const {
        return segment_ ? view_.header().count.load(std::memory_order_relaxed) : 0;
    }

    // Readable when update() has something to process; -1 for a reader of a writer's own mapping.
    int fd() const { return watch_ ? watch_->fd() : -1; }
    // Waits until fd() is readable. False if the time ran out.
    bool await(std::chrono::milliseconds timeout) const;

    // The number of failed lookups and lost segments caused by damage so far. The handler is called
    // at each of them.
    uint64_t corruptions() const { return corruptions_; }
    void corruptionHandlerIs(std::function<void(const std::string& what)> handler) {
        corruptionHandler_ = std::move(handler);
    }

  protected:
    template <Shape shape, class Place>
    Lookup find(const uint64_t* key, Place&& place) const {
        if (!segment_) [[unlikely]]
            return Lookup::absent;
        const Lookup result = view_.find<shape>(key, place);
        if (result == Lookup::corrupt) [[unlikely]]
            corruption("an entry contradicts the index");
        return result;
    }
    // Calls `visit(key)` after each entry that was copied to `key` and `place`. False if an entry
    // was omitted because it could not be read.
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
    std::unique_ptr<FileWatch> watch_;
    std::shared_ptr<Segment> segment_;
    View view_;  // of segment_
    MapState state_{MapState::absent};
    std::string refusal_;
    uint64_t seenWriters_{0};  // the header's `writers` at the last update; 0 before the first
    uint64_t seen_{0};         // changes processed; at most the header's `head` of that writer
    mutable uint64_t corruptions_{0};
    std::function<void(const std::string&)> corruptionHandler_;
};

template <Shape shape, class Place, class Visit>
bool MapReader::walk(uint64_t* key, Place&& place, Visit&& visit) const {
    if (!segment_) return true;
    bool complete = true;
    const std::shared_ptr<Segment> kept = segment_;
    const View view = view_;
    for (uint64_t slot = view.geometry().slots(); slot-- > 0;) {
        switch (view.read<shape>(slot, key, place)) {
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
    const View& view = kept->view();
    // Acquire: the ring is read after `head`, and `head` after the writer that it belongs to.
    const uint64_t writers = view.header().writers.load(std::memory_order_acquire);
    const uint64_t head = view.header().head.load(std::memory_order_acquire);
    const uint64_t ahead = head - seen_;
    if (writers != seenWriters_ || ahead > view.geometry().ringRecords) {
        seenWriters_ = writers;
        seen_ = head;
        return News::everything;
    }
    for (uint64_t i = 0; i < ahead; ++i) {
        const uint64_t* const record = view.record<shape>(seen_);
        uint64_t key[shape.keyWords()];
        copyOut(key, record + 1, shape.keyBytes);
        if (loadWord(record) != seen_ + 1) {
            seen_ = view.header().head.load(std::memory_order_acquire);
            return News::everything;
        }
        ++seen_;
        visit(static_cast<const uint64_t*>(key));
    }
    return ahead ? News::keys : News::none;
}

}  // namespace Shard
