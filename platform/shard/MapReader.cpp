#include "platform/shard/MapReader.h"

#include <poll.h>

#include "platform/netz/Error.h"

namespace Shard {

MapReader::MapReader(const Namespace& space, const std::string& map, const Shape& shape)
    : space_(space),
      map_(map),
      shape_(shape),
      watch_(std::make_unique<FileWatch>(space.directory())) {
    (void)space.fileOf(map);  // raises an error for an invalid name
}

MapReader::MapReader(const MapWriter& writer)
    : shape_(writer.segment()->view().geometry().shape), segment_(writer.segment()) {
    view_ = segment_->view();
    state_ = stateOfPhase();
}

MapReader::~MapReader() = default;

MapState MapReader::stateOfPhase() const {
    switch (static_cast<Phase>(view_.header().phase.load(std::memory_order_acquire))) {
        case Phase::mounted:
            return MapState::mounted;
        case Phase::quiesced:
            return MapState::quiesced;
        default:
            return MapState::mounting;
    }
}

MapState MapReader::update() {
    if (!watch_) return state_ = stateOfPhase();
    watch_->drain();
    Standing standing = Standing::unlinked;
    if (segment_) {
        standing = segment_->standing();
        state_ = standing == Standing::named ? stateOfPhase() : MapState::quiesced;
    }
    if (standing == Standing::cut) {
        drop();
        corruption("another process changed the segment's size");
    }
    if (!segment_ || state_ == MapState::quiesced) remount();
    return state_;
}

// Without a new segment, the last mounted one stays readable.
void MapReader::remount() {
    refusal_.clear();
    try {
        Descriptor fd = Segment::find(*space_, map_);
        if (!fd) {
            if (!segment_) state_ = MapState::absent;
            return;
        }
        watch_->fileIs(fd);
        if (auto next = Segment::mount(*space_, map_, std::move(fd), shape_, refusal_)) {
            segment_ = std::move(next);
            view_ = segment_->view();
            seenWriters_ = 0;
            state_ = stateOfPhase();
            return;
        }
    } catch (const Vel::Error& error) {
        refusal_ = error.what();
    }
    drop();
}

void MapReader::drop() {
    segment_.reset();
    state_ = refusal_.empty() ? MapState::absent : MapState::refused;
}

bool MapReader::await(std::chrono::milliseconds timeout) const {
    struct pollfd wanted {
        fd(), POLLIN, 0
    };
    return poll(&wanted, 1, static_cast<int>(timeout.count())) > 0;
}

void MapReader::corruption(const char* what) const {
    ++corruptions_;
    if (corruptionHandler_) corruptionHandler_("shared map '" + map_ + "': " + what);
}

}  // namespace Shard
