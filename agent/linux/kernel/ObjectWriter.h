// Makes the kernel's objects equal to wanted ones, in one batch: creates and replaces first,
// removes last.
//
// present() are the objects that the kernel has acknowledged. On the event thread; each batch is
// sent and acknowledged within the call.
#pragma once

#include <functional>
#include <set>

#include "agent/linux/kernel/Changes.h"

namespace Agent::Linux {

// Whether no program of the host has the UDP port.
bool portIsFree(uint16_t port);

class ObjectWriter {
  public:
    enum class Scope {
        all,
        additions,  // what exists is neither replaced nor removed
    };

    // Objects that the kernel has refused, by key, with its reason.
    using Refused = std::map<ObjectKey, std::string, KeyOrder>;

    // Reads the agent's objects from the kernel. False if that fails: then present() is as before.
    bool read();
    // Moves the traffic of the groups among `keys` off the next hops that `wanted` lacks, and does
    // nothing else. The kernel waits for all processors (an RCU grace period) each time it replaces
    // a next hop or a group. So each such next hop is replaced by another one that all these groups
    // are to have, which moves the traffic of all of them at once; if no next hop is common to
    // them, the groups are replaced. Returns the number of changes sent.
    size_t divert(const Objects& wanted, const ObjectKeys& keys);
    // Makes the objects of the given keys equal to those in `wanted`; removes those that `wanted`
    // lacks. Returns the number of changes sent.
    size_t apply(const Objects& wanted, const ObjectKeys& keys, Scope scope = Scope::all);

    // The UDP ports of the agent's tunnel devices: one for those of all VRFs, except while it
    // changes.
    std::set<uint16_t> ports() const;
    // Port of the socket that sends the changes, by which the monitor recognises their events.
    uint32_t port() const { return requests_.port(); }

    const Objects& present() const { return present_; }
    bool present(const ObjectKey& key) const { return present_.contains(key); }
    // The wanted objects that the kernel refused, until they are created or no longer wanted.
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
