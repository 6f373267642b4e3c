// The routes in the tables of VRFs with a segment that the agent did not install: prefixes that a
// routing daemon has learned over the tunnels, and prefixes with other routes.
//
// Filled by a dump and updated by the kernel's events. The kernel removes IPv4 routes without an
// event when a link goes down; the owner must call read() again then, and when outdated() says so.
#pragma once

#include <map>
#include <set>

#include "agent/linux/kernel/FibLookup.h"
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
    // Applies an event of a route or a next-hop object. Returns whether any route changed.
    bool apply(const Message& message);
    // Whether routes lead to a next-hop object that is not known yet or has changed. The kernel
    // removes the routes to a deleted object, and changes those to a replaced one, without an
    // event.
    bool outdated() const { return outdated_; }

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
    struct Value {
        std::optional<Netz::IpGenAddr> gateway;  // of a route into a tunnel
        uint32_t nexthopId = 0;                  // of the object that the route leads to; 0: none
        bool operator==(const Value&) const = default;
    };

    bool best(const Key& key) const;
    std::optional<std::pair<Key, Value>> parse(const Message& message) const;
    bool applyNexthop(const Message& message);
    int dump(RequestSocket& requests, uint32_t table, unsigned char family);
    void resolve(RequestSocket& requests);
    void insert(const Key& key, const Value& value);
    void erase(std::map<Key, Value>::iterator route);
    std::optional<Netz::IpGenAddr> tunnelled(const std::vector<RouteVia>& vias) const;

    std::set<uint32_t> tables_, tunnels_;
    std::map<Key, Value> routes_;
    // The same by gateway. Invariant: has exactly those of routes_ that have one.
    std::set<std::tuple<uint32_t, Netz::IpGenAddr, Key>> learned_;
    // The objects that routes_ led to when they were read, and the members of groups among them.
    NexthopObjects nexthops_;
    bool outdated_ = false;
};

}  // namespace Agent::Linux
