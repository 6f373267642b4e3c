// Asks the kernel where packets to an address go. No copy of its routes is kept: it takes IPv4
// routes away without telling when a link goes down or a next-hop object is deleted, and an answer
// costs a few microseconds. So whenever anything changed, look everything up again.
//
// The answer is the matching entry of the FIB with all its legs, not the one leg that a flow would
// take.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

#include "agent/linux/kernel/NetlinkSocket.h"
#include "platform/netz/IpGenAddr.h"

namespace Agent::Linux {

struct RouteQuery {
    Netz::IpGenAddr destination;
    uint32_t vrfIndex = 0;  // of the VRF's device; 0 for the VRF "default"
    uint32_t mark = 0;      // firewall mark, for policy rules

    bool operator==(const RouteQuery&) const = default;
};

enum class RouteKind : uint8_t {
    forwarded,
    local,        // the host's own address, or a broadcast, multicast or anycast address
    noRoute,      // ENETUNREACH
    unreachable,  // EHOSTUNREACH, or every leg leaves by a dead link
    prohibited,   // EACCES
    blackhole,    // EINVAL
    failed,       // the question was refused or its answer lost
};

struct RouteVia {
    Netz::IpGenAddr hop;  // the gateway; the destination itself where the route is on-link
    uint32_t ifIndex = 0;
    uint32_t weight = 1;  // 1..65536, relative to those of the other vias; 1 if there is none
    bool onLink = false;

    bool operator==(const RouteVia&) const = default;
    auto operator<=>(const RouteVia&) const = default;
};

struct RouteResult {
    RouteKind kind = RouteKind::failed;
    // Of a forwarded destination, in ascending order, so that equal routes compare equal; otherwise
    // empty. Legs that leave by a link without carrier are left out.
    std::vector<RouteVia> vias;

    bool operator==(const RouteResult&) const = default;
};

// What one RTM_NEWROUTE or NLMSG_ERROR message answers to a query.
struct RouteAnswer {
    RouteResult result;
    uint32_t nexthopId = 0;  // of the next-hop object that holds the vias, if the answer does not
};
RouteAnswer parseRoute(const Message& message, const Netz::IpGenAddr& destination);

// What one RTM_NEWNEXTHOP message tells of a next-hop object: a group, or a hop of its own.
struct NexthopObject {
    struct Member {
        uint32_t id;
        uint32_t weight;
    };
    bool blackhole = false;
    bool dead = false;
    std::vector<Member> group;
    RouteVia via;  // an unspecified hop stands for the destination
};
NexthopObject parseNexthop(const Message& message);

class FibLookup {
  public:
    explicit FibLookup(RequestSocket& requests) : requests_(requests) {}

    // One result per query, in their order.
    std::vector<RouteResult> lookup(std::span<const RouteQuery> queries);

  private:
    using Objects = std::map<uint32_t, NexthopObject>;
    Objects nexthops(std::span<const uint32_t> ids);

    RequestSocket& requests_;
};

}  // namespace Agent::Linux
