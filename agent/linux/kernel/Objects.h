// The kernel objects by which the agent forwards, as values, and a map that holds all of them.
// ObjectDump reads them from the kernel, ObjectWriter changes the kernel.
//
// Objects are created in the order of their kinds, because each kind uses those before it, and
// removed in the reverse order. Next hops, routes and rules have the protocol `ownProtocol`,
// devices the group `ownLinkGroup`, so that a restarted agent finds its objects.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "platform/netz/IntfId.h"
#include "platform/netz/IpAddrWithMask.h"

namespace Agent::Linux {

// In rtm_protocol, nh_protocol and FRA_PROTOCOL; not among those of /etc/iproute2/rt_protos.
inline constexpr uint8_t ownProtocol = 110;
// IFLA_GROUP of a tunnel device: `ip link show group 110`.
inline constexpr uint32_t ownLinkGroup = ownProtocol;

// A VXLAN-GPE device, which takes the tunnel's addresses and VNI from the next hop. It accepts one
// VNI.
struct Tunnel {
    struct Key {
        Netz::IntfId name;
        auto operator<=>(const Key&) const = default;
    };
    Netz::IntfId name;
    uint16_t udpPort = 0;
    uint32_t vni = 0;                // 1..16777215
    uint32_t mtu = 0;                // bytes, of the inner packets
    uint32_t master = 0;             // index of a VRF device; 0: none
    Netz::IpAddrWithMask address{};  // the router's own in the overlay; zero: none

    Key key() const { return {name}; }
    bool operator==(const Tunnel&) const = default;
};

// Encapsulates packets and sends them by a tunnel device. For routes of both address families.
struct Nexthop {
    struct Key {
        uint32_t id = 0;
        auto operator<=>(const Key&) const = default;
    };
    uint32_t id = 0;
    uint32_t ifIndex = 0;  // of the tunnel device
    uint32_t vni = 0;
    Netz::IpGenAddr source;  // of the outer packets, as the destination
    Netz::IpGenAddr destination;

    Key key() const { return {id}; }
    bool operator==(const Nexthop&) const = default;
};

// Spreads flows over its members by weight. The group is resilient: when a member is removed, only
// its flows move.
struct NexthopGroup {
    struct Member {
        uint32_t id = 0;
        uint32_t weight = 1;  // 1..256
        auto operator<=>(const Member&) const = default;
    };
    struct Key {
        uint32_t id = 0;
        auto operator<=>(const Key&) const = default;
    };
    uint32_t id = 0;              // next hops and groups share their numbers
    std::vector<Member> members;  // at least one, by ascending id

    Key key() const { return {id}; }
    bool operator==(const NexthopGroup&) const = default;
};

struct Route {
    enum class Action : uint8_t {
        nexthop,      // by a next hop or group, `nexthopId`
        via,          // by a gateway on a link, or on-link without one
        unreachable,  // the sender is told
        next,         // the next rule decides (a "throw" route)
    };
    struct Key {
        uint32_t table = 0;
        Netz::IpAddrWithMask prefix;  // no bits beyond the length
        uint32_t metric = 0;          // not 0, which IPv6 takes for a default of its own
        auto operator<=>(const Key&) const = default;
    };
    uint32_t table = 0;
    Netz::IpAddrWithMask prefix;
    uint32_t metric = 0;
    Action action = Action::unreachable;
    uint32_t nexthopId = 0;
    Netz::IpGenAddr gateway{};  // zero: the destination is on the link
    uint32_t ifIndex = 0;

    Key key() const { return {table, prefix, metric}; }
    bool operator==(const Route&) const = default;
};

// Packets that meet all given conditions are looked up in a table. A rule is its own key.
struct Rule {
    using Key = Rule;
    uint32_t priority = 0;
    bool v6 = false;
    uint32_t table = 0;
    Netz::IpGenAddr source{};      // zero: any
    uint32_t mark = 0;             // firewall mark; 0: any
    uint8_t ipProtocol = 0;        // 0: any
    uint16_t sourcePort = 0;       // 0: any
    uint16_t destinationPort = 0;  // 0: any

    const Rule& key() const { return *this; }
    bool operator==(const Rule&) const = default;
    auto operator<=>(const Rule&) const = default;
};

using Object = std::variant<Tunnel, Nexthop, NexthopGroup, Route, Rule>;
using ObjectKey = std::variant<Tunnel::Key, Nexthop::Key, NexthopGroup::Key, Route::Key, Rule::Key>;

// By kind, then by key, as the variant's own comparison, which visits both sides by tables of
// functions and takes several times as long.
struct KeyOrder {
    bool operator()(const ObjectKey& a, const ObjectKey& b) const {
        if (a.index() != b.index()) return a.index() < b.index();
        const auto before = [&b](const auto& key) {
            return key < *std::get_if<std::decay_t<decltype(key)>>(&b);
        };
        return std::visit(before, a);
    }
};
using ObjectKeys = std::set<ObjectKey, KeyOrder>;
using Objects = std::map<ObjectKey, Object, KeyOrder>;

inline ObjectKey keyOf(const Object& object) {
    return std::visit([](const auto& each) -> ObjectKey { return each.key(); }, object);
}
inline void insert(Objects& objects, Object object) {
    objects.insert_or_assign(keyOf(object), std::move(object));
}

// One line, similar to the output of ip(8).
std::string textOf(const Object& object);
// The same for a key.
std::string textOf(const ObjectKey& key);

}  // namespace Agent::Linux
