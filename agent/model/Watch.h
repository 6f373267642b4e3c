// Watches of paths of the tree: a watcher of a path is sent every change at or below it when it
// happens, in the order in which the changes happen, with the value at that time.
//
// A change becomes one line of JSON, independent of the number of watchers, and is sent to a
// watcher once, even if several of its paths contain it. The same line is never sent twice in a row
// for one path, which would happen if a subscriber called earlier set the value again.
//
// All entities of a watched root are followed as they are added and removed, so a path need not
// exist yet. Owned by Control; lives no longer than the tree; used on the event
// thread.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "agent/model/Tree.h"

namespace Agent {

class Watcher {
  public:
    // {"event":"set"|"del","path":…,"value":…} without a newline; the value of a "del" is null.
    using Line = std::shared_ptr<const std::string>;

    // Called within notifications: must not change the tree or the watches.
    virtual void sendEvent(const Line& line) = 0;

  protected:
    ~Watcher() = default;
};

class Watches {
  public:
    explicit Watches(const Tree& tree);
    ~Watches();

    // Watches the path from now on and returns its value, null if it does not exist.
    Json add(const Path& path, Watcher& watcher);
    // Ends all watches of the watcher.
    void remove(Watcher& watcher);
    // The number of paths that the watcher watches.
    size_t countOf(const Watcher& watcher) const;

    // The entity of a root may have been created, deleted or replaced, which no entity announces.
    void rootChanged();

  private:
    struct Feed;

    const Tree& tree_;
    std::map<const Root*, std::unique_ptr<Feed>> feeds_;  // of the roots that are watched
};

}  // namespace Agent
