// Wakes a reader of shared maps. Readers cannot write to a segment, so a writer cannot know whether
// a reader sleeps on it, and a futex would suit neither an event loop nor a segment that does not
// exist yet. The kernel's file notification (inotify(7)) covers every case: a writer wakes its
// readers by a pwrite(2) to the segment; an unlinked name, the last close of a dead writer's
// descriptor, and a new name in the run directory are events too. Unread events are merged, so a
// slow reader costs nothing.
//
// The kernel limits the number of inotify instances of a user (128 by default). A reader beyond the
// limit is woken by a timer instead, ten times a second.
#pragma once

#include "platform/shard/Segment.h"

namespace Shard {

class FileWatch {
  public:
    // Watches the directory for new names; waking for another map's name is harmless. Raises
    // Vel::Error if the kernel provides no descriptor at all.
    explicit FileWatch(const std::string& directory);

    int fd() const { return events_.get(); }
    // Discards the events so far.
    void drain();
    // Watches this file instead of the previous one. Raises Vel::Error if the kernel refuses.
    void fileIs(const Descriptor& file);

  private:
    Descriptor events_;
    bool timer_{false};  // whether events_ is a timer
    int file_{-1};       // inotify's descriptor of the watched file
};

}  // namespace Shard
