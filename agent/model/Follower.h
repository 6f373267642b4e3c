// Follows an entity and everything in it: calls a function after each change, as entities are
// added, changed and removed. It knows only descriptors, so it follows any entity.
//
// Used on the event thread. The function must not change what is followed.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "platform/vel/Entity.h"

namespace Agent {

class Follower {
  public:
    // A change of one attribute, or of the element under a key of it. Valid during the call; the
    // texts are made on request.
    class Change {
      public:
        // Below the path of the followed entity: "/remoteVia[198.51.100.2]".
        std::string path() const;
        // What is there now; null if an element has been removed, or a child deleted.
        Vel::Datum value() const;

      private:
        friend class Follower;
        struct Node;
        Change(const Node& node, const Vel::Attribute& attribute, const void* key)
            : node_(node), attribute_(attribute), key_(key) {}
        std::string keyText() const {
            return attribute_.keyed() ? attribute_.keyText(key_) : std::string();
        }

        const Node& node_;
        const Vel::Attribute& attribute_;
        const void* key_;
    };
    using Changed = std::function<void(const Change&)>;

    Follower(Vel::Entity& entity, Changed changed);
    ~Follower();

    const Vel::Entity& entity() const;

  private:
    using Node = Change::Node;

    const Changed changed_;
    std::unique_ptr<Node> top_;
};

}  // namespace Agent
