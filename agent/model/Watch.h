// Watches of paths of the tree: whoever watches a path is sent every change at or below it as it
// happens, in the order in which it happens, with the value that is there at that moment.
//
// A change becomes one line of JSON, however many watch it, and a watcher is sent it once, however
// many of its paths it lies under. The same line is never sent twice in a row for one path, which
// it would be when a subscriber that was called earlier set the value once more.
//
// Each root that is watched is followed whole: every entity in it, as they come and go, so a path
// need not exist yet. Owned by Control; lives no longer than the tree; on the event thread.
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

    // Called from within notifications: must not change the tree or the watches.
    virtual void sendEvent(const Line& line) = 0;

  protected:
    ~Watcher() = default;
};

class Watches {
  public:
    explicit Watches(const Tree& tree);
    ~Watches();

    // Watches the path from now on and returns its value, null if nothing is there.
    Json add(const Path& path, Watcher& watcher);
    // Ends all watches of the watcher.
    void remove(Watcher& watcher);
    // How many paths the watcher watches.
    size_t countOf(const Watcher& watcher) const;

    // The entity of a root may have come, gone or been replaced, of which no entity notifies.
    void rootChanged();

  private:
    struct Node;
    struct Feed;

    const Tree& tree_;
    std::map<const Root*, std::unique_ptr<Feed>> feeds_;  // of the roots that are watched
};

}  // namespace Agent
