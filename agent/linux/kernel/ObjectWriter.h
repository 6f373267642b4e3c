// Brings the kernel's objects to a wanted value: makes before it breaks, in one batch.
//
// Keeps what the kernel has acknowledged as `present()`. On the event thread; a batch is sent
// within the call.
#pragma once

#include <functional>
#include <set>

#include "agent/linux/kernel/Changes.h"

namespace Agent::Linux {

class ObjectWriter {
  public:
    enum class Scope {
        all,
        additions,  // what exists is neither replaced nor removed
    };

    // Objects that the kernel has refused, by key, with its reason.
    using Refused = std::map<ObjectKey, std::string>;

    // Reads the agent's objects from the kernel. False if that fails: then present() is as before.
    bool read();
    // Makes the objects with the keys given as in `wanted`, where an absent one is to be removed.
    // Returns how many changes were tried.
    size_t apply(const Objects& wanted, const std::set<ObjectKey>& keys, Scope scope = Scope::all);

    // Of the socket that makes the changes.
    uint32_t port() const { return requests_.port(); }

    const Objects& present() const { return present_; }
    bool present(const ObjectKey& key) const { return present_.contains(key); }
    // What is wanted and refused. An object leaves it when it is made or not wanted any more.
    const Refused& refused() const { return refused_; }

  private:
    void make(const Object& object, bool exists);
    void makeTunnel(const Tunnel& wanted, const Tunnel* present);
    void remove(const ObjectKey& key);
    size_t commit();

    RequestSocket requests_;
    Changes changes_;
    // What each change of the batch makes; nothing where it removes the object.
    std::vector<std::pair<ObjectKey, std::optional<Object>>> batch_;
    Objects present_;
    Refused refused_;
};

}  // namespace Agent::Linux
