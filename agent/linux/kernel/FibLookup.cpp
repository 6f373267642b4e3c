#include "agent/linux/kernel/FibLookup.h"

#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace Agent::Linux {

namespace {

using Kind = RouteResult::Kind;

constexpr uint32_t deadFlags = RTNH_F_DEAD | RTNH_F_LINKDOWN;

struct Leg {
    rtnexthop head;
    Bytes attributes;
};

std::optional<Leg> takeLeg(Bytes& rest) {
    const auto head = readAs<rtnexthop>(rest);
    if (!head || head->rtnh_len < sizeof(rtnexthop) || head->rtnh_len > rest.size()) return {};
    Leg leg{*head, rest.subspan(sizeof(rtnexthop), head->rtnh_len - sizeof(rtnexthop))};
    rest = dropFront(rest, aligned(head->rtnh_len));
    return leg;
}
using Legs = Records<Leg, takeLeg>;

// A member of a next-hop group, struct nexthop_grp of <linux/nexthop.h>. Newer headers name the
// upper byte of the weight `weight_high`, earlier ones `resvd1` (always 0), so neither name
// compiles everywhere.
struct GroupMember {
    uint32_t id;
    uint8_t weight;
    uint8_t weightHigh;
    uint16_t reserved;
};
static_assert(sizeof(GroupMember) == sizeof(nexthop_grp));
static_assert(offsetof(GroupMember, id) == offsetof(nexthop_grp, id));
static_assert(offsetof(GroupMember, weight) == offsetof(nexthop_grp, weight));
static_assert(offsetof(GroupMember, weightHigh) == offsetof(nexthop_grp, weight) + 1);

// The gateway in an attribute of a route or a leg; `family` is that of the route.
std::optional<Netz::IpGenAddr> gatewayOf(const NetlinkAttribute& attribute, unsigned family) {
    if (attribute.type == RTA_GATEWAY) return readAddr(family, attribute.data);
    if (attribute.type != RTA_VIA) return {};
    const auto viaFamily = readAs<uint16_t>(attribute.data);  // struct rtvia
    return readAddr(viaFamily.value_or(AF_UNSPEC), dropFront(attribute.data, sizeof(uint16_t)));
}

Kind kindOf(const Message& refusal) {
    switch (errorOf(refusal)) {
        case ENETUNREACH:   // no route
        case EHOSTUNREACH:  // an unreachable route; also no route by the interface
        case EACCES:        // a prohibiting route
            return Kind::unreachable;
        // A blackhole route; if the error has a text, a malformed request.
        case EINVAL:
            return refusalText(refusal).empty() ? Kind::unreachable : Kind::failed;
        default:
            return Kind::failed;
    }
}

void finish(RouteResult& result) {
    if (result.kind != Kind::forwarded) result.vias.clear();
    if (result.kind == Kind::forwarded && result.vias.empty()) result.kind = Kind::unreachable;
    if (result.vias.size() == 1) result.vias.front().weight = 1;
    std::ranges::sort(result.vias);
}

}  // namespace

std::optional<FibEntry> fibEntryOf(const Message& message) {
    const auto header = message.header<rtmsg>();
    if (!header || (header->rtm_family != AF_INET && header->rtm_family != AF_INET6)) return {};
    FibEntry entry{header->rtm_table, {{}, header->rtm_dst_len}};
    if (header->rtm_family == AF_INET6) entry.prefix.addr = Netz::IpGenAddr::fromV6({});
    for (const NetlinkAttribute& attribute : attributesAfter<rtmsg>(message)) {
        if (attribute.type == RTA_TABLE) entry.table = attribute.u32().value_or(0);
        if (attribute.type == RTA_DST)
            entry.prefix.addr =
                readAddr(header->rtm_family, attribute.data).value_or(entry.prefix.addr);
    }
    if (entry.prefix.prefixLength > entry.prefix.addr.bits()) return {};
    return entry;
}

std::vector<RouteVia> viasOf(const Message& message) {
    std::vector<RouteVia> vias;
    const auto header = message.header<rtmsg>();
    if (!header) return vias;
    uint32_t ifIndex = 0;
    Netz::IpGenAddr gateway;
    for (const NetlinkAttribute& attribute : attributesAfter<rtmsg>(message)) {
        if (const auto hop = gatewayOf(attribute, header->rtm_family)) gateway = *hop;
        if (attribute.type == RTA_OIF) ifIndex = attribute.u32().value_or(0);
        if (attribute.type != RTA_MULTIPATH) continue;
        for (const Leg& leg : Legs(attribute.data)) {
            if ((leg.head.rtnh_flags & deadFlags) != 0) continue;
            Netz::IpGenAddr hop;
            for (const NetlinkAttribute& inner : Attributes(leg.attributes))
                if (const auto found = gatewayOf(inner, header->rtm_family)) hop = *found;
            vias.push_back(
                {hop, static_cast<uint32_t>(leg.head.rtnh_ifindex), leg.head.rtnh_hops + 1U});
        }
    }
    if (ifIndex != 0 && (header->rtm_flags & deadFlags) == 0) vias.push_back({gateway, ifIndex});
    return vias;
}

RouteReply parseRoute(const Message& message) {
    if (message.type == NLMSG_ERROR) return {{kindOf(message), {}}, 0};
    const auto header = message.header<rtmsg>();
    if (message.type != RTM_NEWROUTE || !header) return {};
    RouteReply reply{{header->rtm_type == RTN_UNICAST ? Kind::forwarded : Kind::unreachable,
                      viasOf(message), fibEntryOf(message)},
                     0};
    // The kernel names the object and its legs both, unless net.ipv4.nexthop_compat_mode is off.
    bool named = false;
    for (const NetlinkAttribute& attribute : attributesAfter<rtmsg>(message)) {
        if (attribute.type == RTA_NH_ID) reply.nexthopId = attribute.u32().value_or(0);
        named |= attribute.type == RTA_OIF || attribute.type == RTA_MULTIPATH;
    }
    if (named || reply.result.kind != Kind::forwarded) reply.nexthopId = 0;
    if (reply.nexthopId == 0) finish(reply.result);
    return reply;
}

NexthopObject parseNexthop(const Message& message) {
    NexthopObject object;
    const auto header = message.header<nhmsg>();
    if (message.type != RTM_NEWNEXTHOP || !header) {
        object.dead = true;
        return object;
    }
    object.dead = (header->nh_flags & deadFlags) != 0;
    for (const NetlinkAttribute& attribute : attributesAfter<nhmsg>(message)) {
        if (attribute.type == NHA_BLACKHOLE) object.blackhole = true;
        if (attribute.type == NHA_OIF) object.via.ifIndex = attribute.u32().value_or(0);
        if (attribute.type == NHA_GATEWAY)
            object.via.hop =
                readAddr(header->nh_family, attribute.data).value_or(Netz::IpGenAddr());
        if (attribute.type != NHA_GROUP) continue;
        for (Bytes rest = attribute.data; auto member = readAs<GroupMember>(rest);
             rest = dropFront(rest, sizeof(GroupMember)))
            object.group.push_back(
                {member->id, (member->weight | uint32_t{member->weightHigh} << 8) + 1});
    }
    return object;
}

RouteResult expand(const NexthopObjects& objects, uint32_t id) {
    const auto object = objects.find(id);
    if (object == objects.end()) return {};
    RouteResult result{object->second.blackhole ? Kind::unreachable : Kind::forwarded, {}};
    auto add = [&](const NexthopObject& nexthop, uint32_t weight) {
        if (nexthop.dead || !nexthop.group.empty()) return;
        result.vias.push_back({nexthop.via.hop, nexthop.via.ifIndex, weight});
    };
    add(object->second, 1);
    for (const NexthopObject::Member& member : object->second.group) {
        const auto hop = objects.find(member.id);
        if (hop == objects.end()) continue;
        if (hop->second.blackhole)
            return {Kind::unreachable, {}};  // a blackhole is the only member of its group
        add(hop->second, member.weight);
    }
    finish(result);
    return result;
}

// With a source address, the kernel treats the output interface of an IPv6 request as a preference
// only, so the route through another interface may hide the requested one; without it, as a
// condition.
std::vector<RouteResult> FibLookup::lookup(std::span<const RouteQuery> queries) {
    std::vector<RouteResult> results = ask(queries);
    std::vector<size_t> hidden;
    std::vector<RouteQuery> again;
    for (size_t i = 0; i < queries.size(); ++i) {
        const RouteQuery& query = queries[i];
        auto& [kind, vias, entry] = results[i];
        if (query.ifIndex == 0 || kind != Kind::forwarded) continue;
        std::erase_if(vias, [&](const RouteVia& via) { return via.ifIndex != query.ifIndex; });
        if (!vias.empty()) continue;
        kind = Kind::unreachable;
        if (query.destination.isV4() || query.source.isZero()) continue;
        hidden.push_back(i);
        again.push_back({query.destination, {}, query.ifIndex});
    }
    if (again.empty()) return results;
    auto found = lookup(again);
    for (size_t i = 0; i < hidden.size(); ++i) {
        results[hidden[i]] = std::move(found[i]);
        results[hidden[i]].entry.reset();  // it depends on that of the first query too
    }
    return results;
}

std::vector<RouteResult> FibLookup::ask(std::span<const RouteQuery> queries) {
    std::vector<RouteResult> results(queries.size());
    std::vector<uint32_t> ids(queries.size());
    std::vector<uint32_t> unresolved;
    requests_.exchange(
        queries.size(),
        [&](MessageWriter& writer, uint32_t sequence, size_t i) {
            const RouteQuery& query = queries[i];
            rtmsg header{};
            header.rtm_family = query.destination.isV4() ? AF_INET : AF_INET6;
            header.rtm_dst_len = static_cast<uint8_t>(query.destination.bits());
            if (!query.source.isZero())
                header.rtm_src_len = static_cast<uint8_t>(query.source.bits());
            header.rtm_flags = RTM_F_FIB_MATCH;
            // Without it, IPv4 names the main table; IPv6 names the right one, and refuses the
            // flag.
            if (query.destination.isV4()) header.rtm_flags |= RTM_F_LOOKUP_TABLE;
            writer.begin(RTM_GETROUTE, 0, sequence, header);
            writer.attribute(RTA_DST, query.destination);
            if (!query.source.isZero()) writer.attribute(RTA_SRC, query.source);
            if (query.ifIndex != 0) writer.attribute(RTA_OIF, query.ifIndex);
        },
        [&](size_t i, const Message& message) {
            RouteReply reply = parseRoute(message);
            results[i] = std::move(reply.result);
            ids[i] = reply.nexthopId;
            if (reply.nexthopId != 0) unresolved.push_back(reply.nexthopId);
        });
    if (unresolved.empty()) return results;
    const NexthopObjects objects = nexthops(unresolved);
    for (size_t i = 0; i < queries.size(); ++i)
        if (ids[i] != 0) {
            RouteResult expanded = expand(objects, ids[i]);
            expanded.entry = results[i].entry;
            results[i] = std::move(expanded);
        }
    return results;
}

NexthopObjects FibLookup::nexthops(std::span<const uint32_t> ids) {
    NexthopObjects objects;
    std::vector<uint32_t> wanted(ids.begin(), ids.end());
    // A group has no groups among its members, so this asks twice at most.
    while (!wanted.empty()) {
        std::vector<uint32_t> members;
        requests_.exchange(
            wanted.size(),
            [&](MessageWriter& writer, uint32_t sequence, size_t i) {
                writer.begin(RTM_GETNEXTHOP, 0, sequence, nhmsg{});
                writer.attribute(NHA_ID, wanted[i]);
            },
            [&](size_t i, const Message& message) {
                if (message.type != RTM_NEWNEXTHOP) return;
                objects[wanted[i]] = parseNexthop(message);
                for (const auto& member : objects[wanted[i]].group) members.push_back(member.id);
            });
        std::erase_if(members, [&](uint32_t id) { return objects.contains(id); });
        std::ranges::sort(members);
        members.erase(std::unique(members.begin(), members.end()), members.end());
        wanted = std::move(members);
    }
    return objects;
}

}  // namespace Agent::Linux
