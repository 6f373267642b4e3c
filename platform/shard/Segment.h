// A mapped segment of shared memory with a name, and the rules for owning and mounting it.
//
// A segment is a file in the run directory, normally on tmpfs. One writer owns it: it holds an
// open-file- description lock on it, which the kernel releases when the writer dies. A segment gets
// its name when it is complete, and never changes its size or its geometry; one that no longer fits
// is unlinked, and a new one takes its name. A segment and its mapping live as long as this process
// holds a pointer to it.
//
// Any other file with that name (a FIFO, a link, a device, another user's file) is never waited
// for: a reader refuses it, a writer replaces it by its segment.
#pragma once

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Export.h"
#include "platform/shard/BusGuard.h"
#include "platform/shard/Namespace.h"
#include "platform/shard/View.h"

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

enum class Standing {
    named,     // the name refers to this segment
    unlinked,  // the name is free, or refers to another file
    cut        // another process changed the file's size: content is lost
};

class VEL_EXPORT Segment {
  public:
    // For a writer: takes over the segment of that name, or makes a new, empty one if none fits.
    // Raises Vel::Error if a living writer owns it, the run directory belongs to another user, or
    // memory for it is not available.
    static std::shared_ptr<Segment> own(const Namespace& space, const std::string& map,
                                        const Geometry& geometry);

    // For a reader, in two steps, so that it can watch the file before it examines it. `find`
    // returns no descriptor if no file has that name, and raises Vel::Error if it cannot be opened
    // for reading.
    static Descriptor find(const Namespace& space, const std::string& map);
    // Null if the segment cannot be used; `refusal` then gives the reason.
    static std::shared_ptr<Segment> mount(const Namespace& space, const std::string& map,
                                          Descriptor fd, const Shape& shape, std::string& refusal);

    ~Segment();
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    const View& view() const { return view_; }
    // Whether this process owns the segment. A forked child owns none of its parent's.
    bool owned() const;
    Standing standing() const;
    // Whether a writer holds the lock.
    bool writerAlive() const;
    // Whether the header is still what it was when this was mounted.
    bool identityIntact() const;

    // For the owner only.
    void phaseIs(Phase phase) const;
    void wakeReaders() const;  // makes the descriptors of readers that watch the file readable
    void unlink() const;       // wakes them too
    void disown();             // releases the lock

  private:
    static std::shared_ptr<Segment> make(const Namespace& space, const std::string& map,
                                         const std::string& file, const Geometry& geometry);
    static std::shared_ptr<Segment> adopt(const std::string& map, const std::string& file,
                                          Descriptor fd, const Identity& identity);
    Segment(std::string file, Descriptor fd, void* base, const Identity& identity, pid_t owner);

    const std::string file_;
    const Descriptor fd_;
    struct stat status_;  // at the time of mounting
    const Identity identity_;
    void* const base_;  // of a mapping of status_.st_size bytes
    std::optional<BusGuard> guard_;
    View view_;
    pid_t owner_;  // the process that holds the lock through fd_; 0 for a reader
};

}  // namespace Shard
