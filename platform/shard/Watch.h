// What wakes a reader of shared maps. Readers cannot write to a segment, so a writer cannot know
// whether anybody sleeps on it, and a futex would serve neither an event loop nor a segment that is
// not there yet. The kernel's file notification serves all of it: a writer rings by a pwrite(2) to
// the segment, an unlinked name and the last close of a dead writer's descriptor are events of
// their own, and so is a new name among the shared-memory objects. Events not yet taken merge, so
// that a slow reader costs nothing.
#pragma once

#include "platform/shard/Segment.h"

namespace Shard {

class Watch {
  public:
    // Watches for new names, whosever they are: few appear, and a wake for nothing does no harm.
    // Raises Vel::Error when the kernel gives no watch.
    Watch();

    int fd() const { return inotify_.get(); }
    // Forgets what has happened so far.
    void drain();
    // Watches this file, and no other any more.
    void fileIs(const Descriptor& file);

  private:
    Descriptor inotify_;
    int file_{-1};
};

}  // namespace Shard
