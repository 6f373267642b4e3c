// A watch of the control socket: follows everything at or below a path of the tree and tells of
// each change as it happens, in the order in which it happens. What is told is read at that moment.
//
// It subscribes to the entities on the way to the path and to all below it, as they come and go;
// the path need not be there yet. Owned by the session's keeper; lives no longer than the tree.
#pragma once

#include <functional>
#include <memory>

#include "agent/model/Tree.h"

namespace Agent {

class Watch {
  public:
    // {"event":"set"|"del","path":…,"value":…}; the value of a "del" is null.
    using Sink = std::function<void(const Json& event)>;

    Watch(const Tree& tree, Path path, Sink sink);
    ~Watch();

    // A root comes and goes without any entity telling of it, so its keeper says that it may have.
    void rootChanged();

  private:
    struct Node;

    void follow();
    void changedAbove();
    Json valueNow() const;
    void tell(const std::string& path, Json value);

    const Tree& tree_;
    const Path path_;
    const std::string text_;
    const Sink sink_;
    bool there_;  // whether there was anything at the path when that was last told
    Json field_;  // the last value, of a path that ends inside a value
    std::unique_ptr<Node> root_;
};

}  // namespace Agent
