// A mapped segment of shared memory under a name, and the rules for owning and mounting it.
//
// One writer owns a segment: it holds an open-file-description lock on it, which the kernel lets
// go when the writer dies, however it dies. A segment never changes its size and is never reused
// for another geometry; what no longer fits is unlinked, and a new segment takes its name. A
// segment and its mapping live as long as somebody here holds the pointer.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Export.h"
#include "platform/shard/BusGuard.h"
#include "platform/shard/Namespace.h"
#include "platform/shard/Table.h"

namespace Shard {

class VEL_EXPORT Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor();
    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

// What has become of a segment's file: it still has its name; or the name is free, or another's; or
// somebody changed the file's size, and what was in it is lost.
enum class Standing { named, unlinked, cut };

class VEL_EXPORT Segment {
  public:
    // The writer's way in: takes over the segment of that name, or makes a new, empty one where
    // there is none or one that does not fit. Raises Vel::Error when a living writer owns it, when
    // it belongs to somebody else, or when there is no memory for it.
    static std::shared_ptr<Segment> own(const Namespace& space, const std::string& map,
                                        const Geometry& geometry);

    // A segment without a name, for a map that only this process reads. Raises Vel::Error when there
    // is no memory for it.
    static std::shared_ptr<Segment> ownPrivate(const std::string& map, const Geometry& geometry);

    // The reader's way in, in two steps, so that a reader can watch the file before it looks at
    // it. No descriptor when there is no segment of that name.
    static Descriptor find(const Namespace& space, const std::string& map);
    // Nothing when the segment cannot be used; `refusal` then says why, or is empty when the
    // segment is still being made.
    static std::shared_ptr<Segment> mount(const Namespace& space, Descriptor fd, const Shape& shape,
                                          std::string& refusal);

    ~Segment();
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    const Table& table() const { return table_; }
    bool fresh() const { return fresh_; }  // made by `own`, not taken over
    bool owned() const { return owned_; }
    // A touch met a page that is gone.
    bool cut() const { return guard_->hit(); }
    Standing standing() const;
    bool writerAlive() const;

    // For the owner only.
    void phaseIs(Phase phase) const;
    void ring() const;    // wakes whoever watches the file
    void unlink() const;  // an event for watchers too
    void disown();        // lets the lock go

  private:
    static std::shared_ptr<Segment> adopt(const std::string& map, std::string name, Descriptor fd,
                                          const Geometry& geometry, bool fresh);
    Segment(std::string name, Descriptor fd, void* base, const Geometry& geometry, bool owned,
            bool fresh);

    std::string name_;
    Descriptor fd_;
    uint64_t bytes_;
    void* base_;
    std::optional<BusGuard> guard_;
    Table table_;
    bool owned_;
    bool fresh_;
};

}  // namespace Shard
