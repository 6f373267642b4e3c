// The routes in the tables of VRFs with a segment that the agent did not install: prefixes that a
// routing daemon has learned over the tunnels, and prefixes with other routes.
//
// Filled by a dump and updated by the kernel's events. The kernel removes IPv4 routes without an
// event when a link goes down; the owner must call read() again then.
#pragma once

#include <map>
#include <set>

#include "agent/linux/kernel/NetlinkSocket.h"
#include "agent/model/ForwardingTypes.h"

namespace Agent::Linux {

class VrfRoutes {
  public:
    // Reads the routes of these tables; `tunnels` are the indices of the tunnel devices. After a
    // failure they are as before.
    enum class Read { failed, same, changed };
    Read read(RequestSocket& requests, const std::set<uint32_t>& tables,
              const std::set<uint32_t>& tunnels);
    // Applies a route event. Returns whether anything changed.
    bool apply(const Message& message);

    // Of several routes for a prefix, that of the lowest metric counts.
    //
    // The prefixes that routes lead to by way of `gateway`, on a tunnel device.
    std::set<IpPrefix> learned(uint32_t table, const Netz::IpGenAddr& gateway) const;
    // All other prefixes that the table has a route for.
    std::set<IpPrefix> others(uint32_t table) const;

  private:
    struct Key {
        uint32_t table = 0;
        IpPrefix prefix;
        uint32_t metric = 0;
        auto operator<=>(const Key&) const = default;
    };
    // The gateway of a route into a tunnel; nothing of any other route.
    using Value = std::optional<Netz::IpGenAddr>;

    bool best(const Key& key) const;
    std::optional<std::pair<Key, Value>> parse(const Message& message) const;

    std::set<uint32_t> tables_, tunnels_;
    std::map<Key, Value> routes_;
    // The same by gateway. Invariant: has exactly those of routes_ that have one.
    std::set<std::tuple<uint32_t, Netz::IpGenAddr, Key>> learned_;
};

}  // namespace Agent::Linux
