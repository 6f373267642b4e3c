// Asks the kernel for the next hops towards an address. No copy of its routes is kept: it removes
// IPv4 routes without notification when a link goes down or a next-hop object is deleted, and a
// lookup costs a few microseconds. LookupCache knows which answers an event leaves valid.
//
// The kernel is asked for the matching FIB entry (RTM_F_FIB_MATCH), so that every leg of a
// multipath route is returned, not the one leg that a flow would take.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

#include "agent/linux/kernel/NetlinkSocket.h"
#include "platform/netz/IpAddrWithMask.h"
#include "platform/netz/IpGenAddr.h"

namespace Agent::Linux {

// The route of packets to `destination` that leave through one interface with one source address.
// Without the interface, only the default route with the lowest metric is found; without the source
// address, rules that select by it do not apply.
struct RouteQuery {
    Netz::IpGenAddr destination;
    Netz::IpGenAddr source{};  // an address of the host; unspecified: any
    uint32_t ifIndex = 0;      // the lookup is made in its VRF; 0: any, in the VRF "default"

    bool operator==(const RouteQuery&) const = default;
};

struct RouteVia {
    Netz::IpGenAddr hop;  // the gateway; zero: the destination itself, which is on the link
    uint32_t ifIndex = 0;
    uint32_t weight = 1;  // 1..65536, relative to the other legs of the route; 1 of a single leg

    bool operator==(const RouteVia&) const = default;
    auto operator<=>(const RouteVia&) const = default;
};

// What identifies the routes for one prefix.
struct FibEntry {
    uint32_t table = 0;
    Netz::IpAddrWithMask prefix;

    bool operator==(const FibEntry&) const = default;
    auto operator<=>(const FibEntry&) const = default;
};
// That of an RTM_NEWROUTE or RTM_DELROUTE message; empty if it has no valid prefix.
std::optional<FibEntry> fibEntryOf(const Message& message);

struct RouteResult {
    enum class Kind : uint8_t {
        forwarded,
        // No route, or one that forwards nothing: unreachable, prohibited, blackhole, an address of
        // the host itself, or every leg leaves through a dead link.
        unreachable,
        failed,  // the request was refused or its reply lost
    };

    Kind kind = Kind::failed;
    // Of a forwarded destination, in ascending order, so that equal routes compare equal; otherwise
    // empty. Legs that leave through a link without carrier, or through another interface than the
    // query's, are omitted.
    std::vector<RouteVia> vias;
    std::optional<FibEntry> entry{};  // the one that gave the result, if the kernel names it

    bool operator==(const RouteResult&) const = default;
};

// The reply of one RTM_NEWROUTE or NLMSG_ERROR message to a query.
struct RouteReply {
    RouteResult result;
    uint32_t nexthopId = 0;  // of the next-hop object that holds the vias, if the reply does not
};
RouteReply parseRoute(const Message& message);
// The vias of an RTM_NEWROUTE or RTM_DELROUTE message that names them itself, dead ones left out.
std::vector<RouteVia> viasOf(const Message& message);

// The content of one RTM_NEWNEXTHOP message: a next-hop object that is a group or a single hop.
struct NexthopObject {
    struct Member {
        uint32_t id;
        uint32_t weight;
    };
    bool blackhole = false;
    bool dead = false;
    std::vector<Member> group;
    RouteVia via;
};
NexthopObject parseNexthop(const Message& message);

using NexthopObjects = std::map<uint32_t, NexthopObject>;  // by id
// The route through one of them; `failed` if it does not exist.
RouteResult expand(const NexthopObjects& objects, uint32_t id);

class FibLookup {
  public:
    explicit FibLookup(RequestSocket& requests) : requests_(requests) {}

    // One result per query, in their order. The requests share system calls.
    std::vector<RouteResult> lookup(std::span<const RouteQuery> queries);
    // Those next-hop objects that exist, and the members of the groups among them.
    NexthopObjects nexthops(std::span<const uint32_t> ids);

  private:
    std::vector<RouteResult> ask(std::span<const RouteQuery> queries);

    RequestSocket& requests_;
};

}  // namespace Agent::Linux
