// What wakes a reader of shared maps. Readers cannot write to a segment, so a writer cannot know
// whether anybody sleeps on it, and a futex would serve neither an event loop nor a segment that
// does not exist yet. The kernel's file notification (inotify(7)) serves all of it: a writer wakes
// its readers by a pwrite(2) to the segment, an unlinked name and the last close of a dead writer's
// descriptor are events of their own, and so is a new name in the run directory. Events not yet
// taken merge, so that a slow reader costs nothing.
//
// The kernel limits how many watchers a user may have (128 unless set otherwise). One that it
// refuses is woken by a timer instead, ten times a second.
#pragma once

#include "platform/shard/Segment.h"

namespace Shard {

class Watch {
  public:
    // Watches the directory for new names; a wake for another map's name does no harm. Raises
    // Vel::Error when the kernel gives no descriptor at all.
    explicit Watch(const std::string& directory);

    int fd() const { return events_.get(); }
    // Forgets what has happened so far.
    void drain();
    // Watches this file, and no other any more. Raises Vel::Error when the kernel refuses.
    void fileIs(const Descriptor& file);

  private:
    Descriptor events_;
    bool timer_{false};  // events_ is a timer
    int file_{-1};       // inotify's number for the file watched
};

}  // namespace Shard
