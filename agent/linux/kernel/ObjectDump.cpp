#include "agent/linux/kernel/ObjectDump.h"

#include <arpa/inet.h>
#include <endian.h>
#include <linux/fib_rules.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/lwtunnel.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "agent/linux/kernel/FibLookup.h"

namespace Agent::Linux {

namespace {

constexpr int attempts = 4;  // when objects change while they are read

using Tunnels = std::map<uint32_t, Tunnel>;  // by index

void takeLink(Tunnels& tunnels, const Message& message) {
    const auto header = message.header<ifinfomsg>();
    if (message.type != RTM_NEWLINK || !header) return;
    Tunnel tunnel;
    bool own = false, vxlan = false;
    for (const NetlinkAttribute& attribute : attributesAfter<ifinfomsg>(message)) {
        if (attribute.type == IFLA_IFNAME)
            tunnel.name = Netz::IntfId::parse(attribute.text()).value_or(Netz::IntfId());
        if (attribute.type == IFLA_GROUP) own = attribute.u32() == ownLinkGroup;
        if (attribute.type == IFLA_MTU) tunnel.mtu = attribute.u32().value_or(0);
        if (attribute.type == IFLA_MASTER) tunnel.master = attribute.u32().value_or(0);
        if (attribute.type != IFLA_LINKINFO) continue;
        for (const NetlinkAttribute& info : Attributes(attribute.data)) {
            if (info.type == IFLA_INFO_KIND) vxlan = info.text() == "vxlan";
            if (info.type != IFLA_INFO_DATA) continue;
            for (const NetlinkAttribute& data : Attributes(info.data))
                if (data.type == IFLA_VXLAN_PORT)
                    tunnel.udpPort = ntohs(readAs<uint16_t>(data.data).value_or(0));
        }
    }
    if ((header->ifi_flags & IFF_UP) == 0) tunnel.mtu = 0;  // not as any wanted one
    if (own && vxlan) tunnels[static_cast<uint32_t>(header->ifi_index)] = tunnel;
}

void takeAddress(Tunnels& tunnels, const Message& message) {
    const auto header = message.header<ifaddrmsg>();
    if (message.type != RTM_NEWADDR || !header) return;
    const auto tunnel = tunnels.find(header->ifa_index);
    if (tunnel == tunnels.end() || header->ifa_scope != RT_SCOPE_UNIVERSE) return;
    for (const NetlinkAttribute& attribute : attributesAfter<ifaddrmsg>(message))
        if (attribute.type == (header->ifa_family == AF_INET ? IFA_LOCAL : IFA_ADDRESS))
            if (const auto addr = readAddr(header->ifa_family, attribute.data))
                tunnel->second.address = {*addr, header->ifa_prefixlen};
}

void takeVni(Tunnels& tunnels, const Message& message) {
    const auto header = message.header<tunnel_msg>();
    if (message.type != RTM_NEWTUNNEL || !header) return;
    const auto tunnel = tunnels.find(header->ifindex);
    if (tunnel == tunnels.end()) return;
    for (const NetlinkAttribute& entry : attributesAfter<tunnel_msg>(message))
        for (const NetlinkAttribute& attribute : Attributes(entry.data))
            if (attribute.type == VXLAN_VNIFILTER_ENTRY_START)
                tunnel->second.vni = attribute.u32().value_or(0);
}

void takeEncap(Nexthop& nexthop, Bytes encap, unsigned family) {
    const bool v4 = family == AF_INET;
    for (const NetlinkAttribute& attribute : Attributes(encap)) {
        if (attribute.type == (v4 ? +LWTUNNEL_IP_ID : +LWTUNNEL_IP6_ID))
            nexthop.vni =
                static_cast<uint32_t>(be64toh(readAs<uint64_t>(attribute.data).value_or(0)));
        if (attribute.type == (v4 ? +LWTUNNEL_IP_SRC : +LWTUNNEL_IP6_SRC))
            nexthop.source = readAddr(family, attribute.data).value_or(Netz::IpGenAddr());
        if (attribute.type == (v4 ? +LWTUNNEL_IP_DST : +LWTUNNEL_IP6_DST))
            nexthop.destination = readAddr(family, attribute.data).value_or(Netz::IpGenAddr());
    }
}

void takeNexthop(Objects& objects, const Message& message) {
    const auto header = message.header<nhmsg>();
    if (message.type != RTM_NEWNEXTHOP || !header || header->nh_protocol != ownProtocol) return;
    const NexthopObject object = parseNexthop(message);
    Nexthop nexthop;
    nexthop.ifIndex = object.via.ifIndex;
    uint16_t encapType = 0;
    Bytes encap;
    for (const NetlinkAttribute& attribute : attributesAfter<nhmsg>(message)) {
        if (attribute.type == NHA_ID) nexthop.id = attribute.u32().value_or(0);
        if (attribute.type == NHA_ENCAP_TYPE)
            encapType = readAs<uint16_t>(attribute.data).value_or(0);
        if (attribute.type == NHA_ENCAP) encap = attribute.data;
    }
    if (!object.group.empty()) {
        NexthopGroup group{nexthop.id, {}};
        for (const auto& member : object.group) group.members.push_back({member.id, member.weight});
        std::ranges::sort(group.members);
        return insert(objects, group);
    }
    takeEncap(nexthop, encap, encapType == LWTUNNEL_ENCAP_IP6 ? AF_INET6 : AF_INET);
    insert(objects, nexthop);
}

void takeRoute(Objects& objects, const Message& message) {
    const auto header = message.header<rtmsg>();
    const auto entry = fibEntryOf(message);
    if (message.type != RTM_NEWROUTE || !entry || header->rtm_protocol != ownProtocol) return;
    Route route;
    route.table = entry->table;
    route.prefix = entry->prefix;
    switch (header->rtm_type) {
        case RTN_UNREACHABLE:
            route.action = Route::Action::unreachable;
            break;
        case RTN_THROW:
            route.action = Route::Action::next;
            break;
        default:
            route.action = Route::Action::via;
    }
    uint32_t ifIndex = 0;
    for (const NetlinkAttribute& attribute : attributesAfter<rtmsg>(message)) {
        if (attribute.type == RTA_PRIORITY) route.metric = attribute.u32().value_or(0);
        if (attribute.type == RTA_GATEWAY)
            route.gateway = readAddr(header->rtm_family, attribute.data).value_or(route.gateway);
        if (attribute.type == RTA_NH_ID) route.nexthopId = attribute.u32().value_or(0);
        if (attribute.type == RTA_OIF) ifIndex = attribute.u32().value_or(0);
    }
    if (route.nexthopId != 0) route.action = Route::Action::nexthop, route.gateway = {};
    if (route.action == Route::Action::via) route.ifIndex = ifIndex;
    insert(objects, route);
}

void takeRule(Objects& objects, const Message& message) {
    const auto header = message.header<fib_rule_hdr>();
    if (message.type != RTM_NEWRULE || !header) return;
    Rule rule;
    rule.v6 = header->family == AF_INET6;
    rule.table = header->table;
    bool own = false;
    for (const NetlinkAttribute& attribute : attributesAfter<fib_rule_hdr>(message)) {
        if (attribute.type == FRA_PROTOCOL)
            own = readAs<uint8_t>(attribute.data).value_or(0) == ownProtocol;
        if (attribute.type == FRA_PRIORITY) rule.priority = attribute.u32().value_or(0);
        if (attribute.type == FRA_TABLE) rule.table = attribute.u32().value_or(0);
        if (attribute.type == FRA_FWMARK) rule.mark = attribute.u32().value_or(0);
        if (attribute.type == FRA_SRC)
            rule.source = readAddr(header->family, attribute.data).value_or(rule.source);
        if (attribute.type == FRA_IP_PROTO)
            rule.ipProtocol = readAs<uint8_t>(attribute.data).value_or(0);
        if (attribute.type == FRA_SPORT_RANGE || attribute.type == FRA_DPORT_RANGE)
            (attribute.type == FRA_SPORT_RANGE ? rule.sourcePort : rule.destinationPort) =
                readAs<fib_rule_port_range>(attribute.data).value_or(fib_rule_port_range{}).start;
    }
    if (own) insert(objects, rule);
}

// A dump of `type` for which the kernel is asked with `header`.
template <class Header>
int dump(RequestSocket& requests, uint16_t type, const Header& header, auto take) {
    return requests.dump(
        [&](MessageWriter& writer, uint32_t sequence) {
            writer.begin(type, NLM_F_DUMP, sequence, header);
        },
        take);
}

int read(RequestSocket& requests, Objects& objects) {
    Tunnels tunnels;
    int error = 0;
    const auto add = [&](int next) { error = error != 0 ? error : next; };
    add(dump(requests, RTM_GETLINK, ifinfomsg{}, [&](const Message& m) { takeLink(tunnels, m); }));
    add(dump(requests, RTM_GETADDR, ifaddrmsg{},
             [&](const Message& m) { takeAddress(tunnels, m); }));
    tunnel_msg vnis{};
    vnis.family = PF_BRIDGE;
    if (!tunnels.empty())
        add(dump(requests, RTM_GETTUNNEL, vnis, [&](const Message& m) { takeVni(tunnels, m); }));
    add(dump(requests, RTM_GETNEXTHOP, nhmsg{},
             [&](const Message& m) { takeNexthop(objects, m); }));
    for (const unsigned char family : {AF_INET, AF_INET6}) {
        rtmsg routes{};
        routes.rtm_family = family;
        routes.rtm_protocol = ownProtocol;  // the kernel leaves out the others
        add(dump(requests, RTM_GETROUTE, routes, [&](const Message& m) { takeRoute(objects, m); }));
        fib_rule_hdr rules{};
        rules.family = family;
        add(dump(requests, RTM_GETRULE, rules, [&](const Message& m) { takeRule(objects, m); }));
    }
    for (auto& [index, tunnel] : tunnels) insert(objects, tunnel);
    return error;
}

}  // namespace

std::optional<Objects> readObjects(RequestSocket& requests) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        Objects objects;
        const int error = read(requests, objects);
        if (error == 0) return objects;
        if (error != EAGAIN) return {};
    }
    return {};
}

std::set<uint32_t> tablesOfOthers(RequestSocket& requests) {
    std::set<uint32_t> tables;
    for (const unsigned char family : {AF_INET, AF_INET6}) {
        rtmsg routes{};
        routes.rtm_family = family;
        dump(requests, RTM_GETROUTE, routes, [&](const Message& message) {
            const auto header = message.header<rtmsg>();
            const auto entry = fibEntryOf(message);
            if (header && entry && header->rtm_protocol != ownProtocol) tables.insert(entry->table);
        });
    }
    return tables;
}

}  // namespace Agent::Linux
